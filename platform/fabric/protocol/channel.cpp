#include "platform/fabric/protocol/channel.h"

#include <algorithm>

namespace vyn::fabric {

net::IoStatus Channel::SendRequest(FabricOperation operation, std::string_view head, const void* data,
                                   std::uint32_t dataLength, std::chrono::milliseconds timeout) {
  const FabricFrameHeader header{kFrameMagic, static_cast<std::uint16_t>(operation),   0,         mSent++,
                                 0,           static_cast<std::uint32_t>(head.size()), dataLength};
  return SendFrame(*mStream, header, head, data, net::Deadline::After(timeout));
}

net::IoStatus Channel::ReadAnswer(FabricOperation operation, int& result, std::string& head,
                                  std::uint32_t& dataLength, std::chrono::milliseconds timeout,
                                  const Progress& progress) {
  const net::Deadline end = net::Deadline::After(progress == nullptr ? timeout : kLongestAnswer);
  for (;;) {
    FabricFrameHeader header{};
    if (const net::IoStatus status =
            mReader.ReadFrame(header, head, std::min(net::Deadline::After(timeout), end));
        status != net::IoStatus::kOk) {
      return status;
    }
    if (header.operation != static_cast<std::uint16_t>(operation) || header.sequence != mAnswered) {
      return net::IoStatus::kFailed;
    }
    if ((header.flags & kFrameProgress) != 0) {
      if (header.headLength != 0 || header.dataLength != 0 || (progress != nullptr && !progress())) {
        return net::IoStatus::kFailed;
      }
      if (end.IsOver()) {
        return net::IoStatus::kTimeout;  // a peer that sends without a pause never makes a receive wait
      }
      continue;
    }
    ++mAnswered;
    result = header.result;
    dataLength = header.dataLength;
    return net::IoStatus::kOk;
  }
}

}  // namespace vyn::fabric
