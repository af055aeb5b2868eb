#include "platform/fabric/protocol/channel.h"

#include <algorithm>

namespace vyn::bm {

IoStatus Channel::SendRequest(Operation operation, std::string_view head, const void* data,
                              std::uint32_t dataLength, std::chrono::milliseconds timeout) {
  const FrameHeader header{kFrameMagic, static_cast<std::uint16_t>(operation),   0,         mSent++,
                           0,           static_cast<std::uint32_t>(head.size()), dataLength};
  return SendFrame(*mStream, header, head, data, After(timeout));
}

IoStatus Channel::ReadAnswer(Operation operation, int& result, std::string& head, std::uint32_t& dataLength,
                             std::chrono::milliseconds timeout, const Progress& progress) {
  const Deadline end = After(progress == nullptr ? timeout : kLongestAnswer);
  for (;;) {
    FrameHeader header{};
    if (const IoStatus status = mReader.ReadFrame(header, head, std::min(After(timeout), end));
        status != IoStatus::kOk) {
      return status;
    }
    if (header.operation != static_cast<std::uint16_t>(operation) || header.sequence != mAnswered) {
      return IoStatus::kFailed;
    }
    if ((header.flags & kFrameProgress) != 0) {
      if (header.headLength != 0 || header.dataLength != 0 || (progress != nullptr && !progress())) {
        return IoStatus::kFailed;
      }
      if (std::chrono::steady_clock::now() >= end) {
        return IoStatus::kTimeout;  // who sends without a pause never makes a receive wait
      }
      continue;
    }
    ++mAnswered;
    result = header.result;
    dataLength = header.dataLength;
    return IoStatus::kOk;
  }
}

}  // namespace vyn::bm
