#include "platform/fabric/client/object_location.h"

#include "platform/fabric/protocol/checksum.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/file_io.h"

#include <algorithm>
#include <cerrno>

namespace vyn::fabric {

namespace {

/// Bytes that are copied at a time through this process, from one node to another.
constexpr std::uint64_t kPiece = 4U * kMaxDataLength;

bool Overflows(std::uint64_t offset, std::uint64_t length) { return offset + length < offset; }

}  // namespace

int ObjectLocation::Read(std::uint64_t offset, std::uint64_t length, void* buffer, std::uint64_t beyond) {
  if (Overflows(offset, length)) {
    return kBmLocalError;
  }
  if (mNode != nullptr) {
    return mNode->Read(mName, offset, length, buffer, beyond);
  }
  return InRange(offset, length + beyond) && ReadFile(mFile.Get(), buffer, length, offset) ? 0
                                                                                           : kBmLocalError;
}

int ObjectLocation::ReadChecked(std::uint64_t length, void* buffer) {
  if (mNode == nullptr) {
    return Read(0, length, buffer);
  }
  for (int tries = 2; tries > 0; --tries) {
    Checksum arrived;
    const RemoteNode::Sink sink = [&](Channel& channel, std::uint64_t position, std::uint32_t count) {
      char* place = static_cast<char*>(buffer) + position;
      const net::IoStatus status = channel.ReadData(place, count, kAnswerTimeout);
      arrived.Add(place, count);  // while the bytes are in the processor's cache
      return status;
    };
    ObjectState state;
    int result = mNode->Read(mName, 0, length, sink);
    if (result == 0) {
      result = mNode->State(mName, true, state);
    }
    if (result != 0 || state.size != length || state.beingWritten || state.checksum == arrived.Value()) {
      return result;
    }
  }
  return -EBADMSG;
}

int ObjectLocation::Write(std::uint64_t offset, std::uint64_t length, const void* buffer,
                          std::uint64_t beyond) {
  if (Overflows(offset, length)) {
    return kBmLocalError;
  }
  if (mNode != nullptr) {
    return mNode->Write(mName, offset, length, buffer, beyond);
  }
  return InRange(offset, length + beyond) && WriteFile(mFile.Get(), buffer, length, offset) ? 0
                                                                                            : kBmLocalError;
}

int ObjectLocation::CheckRange(std::uint64_t offset, std::uint64_t length) {
  if (mNode != nullptr) {
    if (const int result = mNode->Stat(mName, mSize); result != 0) {
      return result;
    }
  }
  return InRange(offset, length) ? 0 : kBmLocalError;
}

int ObjectLocation::Fill(int file, std::uint64_t fileOffset, std::uint64_t length) {
  const std::unique_ptr<char[]> buffer(new char[kMaxDataLength]);
  if (mNode != nullptr) {
    return mNode->Write(mName, 0, length, [&](std::uint64_t position, std::uint32_t count) {
      return ReadFile(file, buffer.get(), count, fileOffset + position) ? buffer.get() : nullptr;
    });
  }
  return InRange(0, length) && CopyFile(file, fileOffset, mFile.Get(), 0, length, buffer.get())
             ? 0
             : kBmLocalError;
}

int ObjectLocation::Copy(ObjectLocation& source, std::uint64_t sourceOffset, ObjectLocation& destination,
                         std::uint64_t destinationOffset, std::uint64_t length) {
  if (Overflows(sourceOffset, length) || Overflows(destinationOffset, length)) {
    return kBmLocalError;
  }
  if (source.mNode == nullptr && destination.mNode == nullptr) {
    const std::unique_ptr<char[]> buffer(new char[kFileBlock]);
    return source.InRange(sourceOffset, length) && destination.InRange(destinationOffset, length) &&
                   CopyFile(source.mFile.Get(), sourceOffset, destination.mFile.Get(), destinationOffset,
                            length, buffer.get())
               ? 0
               : kBmLocalError;
  }
  if (source.mNode == destination.mNode && OwnerOf(source.mName.id) == OwnerOf(destination.mName.id)) {
    return source.mNode->Copy(source.mName, sourceOffset, destination.mName, destinationOffset, length);
  }
  const std::unique_ptr<char[]> buffer(new char[std::min(length, kPiece)]);
  std::uint64_t done = 0;
  do {
    const std::uint64_t count = std::min(length - done, kPiece);
    const std::uint64_t beyond = length - done - count;
    int result = source.Read(sourceOffset + done, count, buffer.get(), beyond);
    if (result == 0) {
      result = destination.Write(destinationOffset + done, count, buffer.get(), beyond);
    }
    if (result != 0) {
      return result;
    }
    done += count;
  } while (done < length);
  return 0;
}

}  // namespace vyn::fabric
