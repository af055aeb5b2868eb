#include "platform/fabric/node/server_call.h"

#include "platform/fabric/transport/file_io.h"

#include <algorithm>

namespace vyn::fabric {

using net::Deadline;
using net::IoStatus;

namespace {

/// After this idle time a connection frees its scratch memory.
constexpr std::chrono::milliseconds kKeepBuffer{1000};
/// A read of at most this length is answered in one write.
constexpr std::uint32_t kSmallRead = 64U << 10U;

}  // namespace

char* ServerCall::Buffer() {
  if (mBuffer == nullptr) {
    mBuffer.reset(new char[kFileBlock]);
  }
  return mBuffer.get();
}

bool ServerCall::ReceiveData(const std::function<bool(const char* data, std::size_t length)>& sink) {
  const Deadline deadline = Deadline::After(kFrameTimeout);
  bool wanted = sink != nullptr;
  if (mBroken) {
    return false;
  }
  while (mDataLeft > 0) {
    const std::size_t count = std::min<std::size_t>(mDataLeft, kFileBlock);
    if (mFrames.ReadData(Buffer(), count, deadline) != IoStatus::kOk) {
      return false;
    }
    mDataLeft -= static_cast<std::uint32_t>(count);
    wanted = wanted && sink(Buffer(), count);
  }
  return true;
}

bool ServerCall::Answer(int result, std::string_view head, int descriptor) {
  FabricFrameHeader header = mHeader;
  header.result = result;
  header.headLength = static_cast<std::uint32_t>(head.size());
  header.dataLength = 0;
  return ReceiveData(nullptr) && SendFrame(mStream, header, head, nullptr, Deadline::After(kFrameTimeout),
                                           descriptor) == IoStatus::kOk;
}

bool ServerCall::AnswerData(const void* data, std::uint32_t length) {
  FabricFrameHeader header = mHeader;
  header.headLength = 0;
  header.dataLength = length;
  return ReceiveData(nullptr) &&
         SendFrame(mStream, header, {}, data, Deadline::After(kFrameTimeout)) == IoStatus::kOk;
}

bool ServerCall::AnswerFile(int file, std::uint64_t offset, std::uint32_t length) {
  if (length <= kSmallRead) {  // header and bytes leave in one write
    return ReadFile(file, Buffer(), length, offset) && AnswerData(Buffer(), length);
  }
  return AnswerData(nullptr, length) &&
         mStream.SendFile(file, offset, length, Deadline::After(kFrameTimeout)) == IoStatus::kOk;
}

bool ServerCall::SendProgress() {
  mBroken = mBroken || mStream.PeerGone();
  const auto now = Deadline::Clock::now();
  if (mBroken || now - mLastProgress < kProgressInterval) {
    return !mBroken;
  }
  mLastProgress = now;
  FabricFrameHeader header = mHeader;
  header.flags = kFrameProgress;
  header.headLength = 0;
  header.dataLength = 0;
  mBroken = SendFrame(mStream, header, {}, nullptr, Deadline::After(kFrameTimeout)) != IoStatus::kOk;
  return !mBroken;
}

IoStatus ServeConnection(ByteStream& stream, const CallHandler& handler, std::chrono::milliseconds idle,
                         const std::function<void(bool)>& busy, const std::function<bool()>& keep) {
  FabricFrameReader frames(stream);
  std::unique_ptr<char[]> buffer;
  std::string head;
  for (std::uint32_t sequence = 0;; ++sequence) {
    IoStatus status = frames.WaitForFrame(Deadline::After(std::min(idle, kKeepBuffer)));
    if (status == IoStatus::kTimeout && idle > kKeepBuffer) {
      buffer.reset();
      head = {};
      do {
        status = frames.WaitForFrame(Deadline::After(idle - kKeepBuffer));
      } while (status == IoStatus::kTimeout && keep != nullptr && keep());
    }
    if (status != IoStatus::kOk) {
      return status;
    }
    if (busy != nullptr) {
      busy(true);
    }
    FabricFrameHeader header{};
    if (frames.ReadFrame(header, head, Deadline::After(kFrameTimeout)) != IoStatus::kOk ||
        header.sequence != sequence || header.flags != 0 || header.result != 0) {
      return IoStatus::kFailed;
    }
    ServerCall call(stream, frames, header, buffer);
    Reader arguments(head);
    if (!handler(call, arguments)) {
      return IoStatus::kFailed;
    }
    if (busy != nullptr) {
      busy(false);
    }
  }
}

}  // namespace vyn::fabric
