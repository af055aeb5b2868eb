#include "platform/fabric/transport/file_io.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace vyn::fabric {

bool ReadFile(int file, void* buffer, std::size_t length, std::uint64_t offset) {
  char* target = static_cast<char*>(buffer);
  while (length > 0) {
    const ssize_t count = ::pread(file, target, length, static_cast<off_t>(offset));
    if (count <= 0) {
      if (count < 0 && errno == EINTR) {
        continue;
      }
      errno = count == 0 ? ENODATA : errno;
      return false;
    }
    target += count;
    offset += static_cast<std::uint64_t>(count);
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

bool WriteFile(int file, const void* buffer, std::size_t length, std::uint64_t offset) {
  const char* source = static_cast<const char*>(buffer);
  while (length > 0) {
    const ssize_t count = ::pwrite(file, source, length, static_cast<off_t>(offset));
    if (count <= 0) {
      if (count < 0 && errno == EINTR) {
        continue;
      }
      return false;
    }
    source += count;
    offset += static_cast<std::uint64_t>(count);
    length -= static_cast<std::size_t>(count);
  }
  return true;
}

bool CopyFile(int source, std::uint64_t sourceOffset, int destination, std::uint64_t destinationOffset,
              std::uint64_t length, char* buffer, const std::function<bool()>& between) {
  // Both may be the same file: when the destination lies after the source, we copy from the end, so that no
  // byte is overwritten before it was read.
  const bool fromEnd = destinationOffset > sourceOffset;
  for (std::uint64_t moved = 0; moved < length;) {
    const auto count = static_cast<std::size_t>(std::min<std::uint64_t>(kFileBlock, length - moved));
    const std::uint64_t position = fromEnd ? length - moved - count : moved;
    if (!ReadFile(source, buffer, count, sourceOffset + position) ||
        !WriteFile(destination, buffer, count, destinationOffset + position)) {
      return false;
    }
    moved += count;
    if (between != nullptr && !between()) {
      errno = ECANCELED;
      return false;
    }
  }
  return true;
}

}  // namespace vyn::fabric
