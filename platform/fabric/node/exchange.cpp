#include "platform/fabric/node/exchange.h"

#include "platform/fabric/protocol/file_io.h"

#include <algorithm>

namespace vyn::bm {

namespace {

/// An idle connection gives its scratch memory back after this time.
constexpr std::chrono::milliseconds kKeepBuffer{1000};
constexpr std::uint32_t kSmallRead = 64U << 10U;

}  // namespace

char* Exchange::Buffer() {
  if (mBuffer == nullptr) {
    mBuffer.reset(new char[kFileBlock]);
  }
  return mBuffer.get();
}

bool Exchange::ReceiveData(const std::function<bool(const char* data, std::size_t length)>& sink) {
  const Deadline deadline = After(kFrameTimeout);
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

bool Exchange::Answer(int result, std::string_view head, int descriptor) {
  FrameHeader header = mHeader;
  header.result = result;
  header.headLength = static_cast<std::uint32_t>(head.size());
  header.dataLength = 0;
  return ReceiveData(nullptr) &&
         SendFrame(mStream, header, head, nullptr, After(kFrameTimeout), descriptor) == IoStatus::kOk;
}

bool Exchange::AnswerData(const void* data, std::uint32_t length) {
  FrameHeader header = mHeader;
  header.headLength = 0;
  header.dataLength = length;
  return ReceiveData(nullptr) && SendFrame(mStream, header, {}, data, After(kFrameTimeout)) == IoStatus::kOk;
}

bool Exchange::AnswerFile(int file, std::uint64_t offset, std::uint32_t length) {
  if (length <= kSmallRead) {  // header and bytes leave in one write
    return ReadFile(file, Buffer(), length, offset) && AnswerData(Buffer(), length);
  }
  return AnswerData(nullptr, length) &&
         mStream.SendFile(file, offset, length, After(kFrameTimeout)) == IoStatus::kOk;
}

bool Exchange::Progress() {
  mBroken = mBroken || mStream.PeerGone();
  const auto now = std::chrono::steady_clock::now();
  if (mBroken || now - mLastSign < kProgressInterval) {
    return !mBroken;
  }
  mLastSign = now;
  FrameHeader header = mHeader;
  header.flags = kFrameProgress;
  header.headLength = 0;
  header.dataLength = 0;
  mBroken = SendFrame(mStream, header, {}, nullptr, After(kFrameTimeout)) != IoStatus::kOk;
  return !mBroken;
}

IoStatus ServeConnection(ByteStream& stream, const Handler& handler, std::chrono::milliseconds idle,
                         const std::function<void(bool)>& busy) {
  FrameReader frames(stream);
  std::unique_ptr<char[]> buffer;
  std::string head;
  for (std::uint32_t sequence = 0;; ++sequence) {
    IoStatus status = frames.WaitForFrame(After(std::min(idle, kKeepBuffer)));
    if (status == IoStatus::kTimeout && idle > kKeepBuffer) {
      buffer.reset();
      head = {};
      status = frames.WaitForFrame(After(idle - kKeepBuffer));
    }
    if (status != IoStatus::kOk) {
      return status;
    }
    if (busy != nullptr) {
      busy(true);
    }
    FrameHeader header{};
    if (frames.ReadFrame(header, head, After(kFrameTimeout)) != IoStatus::kOk ||
        header.sequence != sequence || header.flags != 0 || header.result != 0) {
      return IoStatus::kFailed;
    }
    Exchange exchange(stream, frames, header, buffer);
    Reader arguments(head);
    if (!handler(exchange, arguments)) {
      return IoStatus::kFailed;
    }
    if (busy != nullptr) {
      busy(false);
    }
  }
}

}  // namespace vyn::bm
