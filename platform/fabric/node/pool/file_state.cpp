#include "platform/fabric/node/pool/file_state.h"

#include "platform/fabric/protocol/checksum.h"
#include "platform/fabric/transport/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <time.h>

#include <algorithm>
#include <csignal>
#include <vector>

namespace vyn::fabric {

namespace {

constexpr std::uint64_t kSecond = 1000000000;

std::uint64_t Nanoseconds(const timespec& time) {
  return static_cast<std::uint64_t>(time.tv_sec) * kSecond + static_cast<std::uint64_t>(time.tv_nsec);
}

bool SetStamp(int file, std::uint64_t stamp) {
  const timespec times[] = {
      {0, UTIME_OMIT},
      {static_cast<time_t>(stamp / kSecond), static_cast<long>(stamp % kSecond)},
  };
  return ::futimens(file, times) == 0;
}

}  // namespace

bool IsOpenForWriting(int file) {
  // Whoever opens the file while the lease stands waits until it is given back, and this process gets a
  // signal: one that is ignored unless somebody asks for it.
  if (::fcntl(file, F_SETSIG, SIGURG) != 0 || ::fcntl(file, F_SETLEASE, F_RDLCK) != 0) {
    return true;
  }
  ::fcntl(file, F_SETLEASE, F_UNLCK);
  return false;
}

std::uint64_t StampOf(int file) {
  struct stat state {};
  return ::fstat(file, &state) == 0 ? Nanoseconds(state.st_mtim) : 0;
}

bool NewStamp(int file) {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return SetStamp(file, std::max(Nanoseconds(now), StampOf(file) + 1));
}

bool SetUnwritten(int file) { return SetStamp(file, kUnwrittenStamp); }

bool ChecksumOf(int file, std::uint64_t size, const std::function<bool()>& between, std::uint64_t& checksum) {
  Checksum sum;
  std::vector<char> buffer(kFileBlock);
  for (std::uint64_t offset = 0; offset < size; offset += kFileBlock) {
    const std::size_t length = std::min<std::uint64_t>(kFileBlock, size - offset);
    if (!ReadFile(file, buffer.data(), length, offset) || !between()) {
      return false;
    }
    sum.Add(buffer.data(), length);
  }
  checksum = sum.Value();
  return true;
}

}  // namespace vyn::fabric
