#include "platform/fabric/protocol/fabric_frame_reader.h"

#include <algorithm>
#include <cstring>

namespace vyn::fabric {

net::IoStatus FabricFrameReader::WaitForFrame(net::Deadline deadline) {
  if (HasBuffered()) {
    return net::IoStatus::kOk;
  }
  std::size_t received = 0;
  const net::IoStatus status = mStream.Receive(mBuffer.data(), mBuffer.size(), received, deadline);
  mBegin = 0;
  mEnd = status == net::IoStatus::kOk ? received : 0;
  return status;
}

net::IoStatus FabricFrameReader::ReadFrame(FabricFrameHeader& header, std::string& head,
                                           net::Deadline deadline) {
  if (const net::IoStatus status = ReadData(&header, sizeof(header), deadline);
      status != net::IoStatus::kOk) {
    return status;
  }
  if (header.magic != kFrameMagic || header.headLength > kMaxHeadLength ||
      header.dataLength > kMaxDataLength) {
    return net::IoStatus::kFailed;
  }
  head.resize(header.headLength);
  return ReadData(head.data(), head.size(), deadline);
}

net::IoStatus FabricFrameReader::ReadData(void* buffer, std::size_t length, net::Deadline deadline) {
  char* target = static_cast<char*>(buffer);
  while (length > 0) {
    if (HasBuffered()) {
      const std::size_t count = std::min(length, mEnd - mBegin);
      std::memcpy(target, mBuffer.data() + mBegin, count);
      mBegin += count;
      target += count;
      length -= count;
    } else if (length < mBuffer.size()) {
      if (const net::IoStatus status = WaitForFrame(deadline); status != net::IoStatus::kOk) {
        return status;
      }
    } else {
      std::size_t received = 0;
      if (const net::IoStatus status = mStream.Receive(target, length, received, deadline);
          status != net::IoStatus::kOk) {
        return status;
      }
      target += received;
      length -= received;
    }
  }
  return net::IoStatus::kOk;
}

net::IoStatus SendFrame(ByteStream& stream, const FabricFrameHeader& header, std::string_view head,
                        const void* data, net::Deadline deadline, int descriptor) {
  iovec parts[3] = {{const_cast<FabricFrameHeader*>(&header), sizeof(header)}};
  std::size_t count = 1;
  if (!head.empty()) {
    parts[count++] = {const_cast<char*>(head.data()), head.size()};
  }
  if (header.dataLength > 0 && data != nullptr) {
    parts[count++] = {const_cast<void*>(data), header.dataLength};
  }
  return stream.Send(parts, count, deadline, descriptor);
}

}  // namespace vyn::fabric
