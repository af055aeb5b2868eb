#include "platform/fabric/protocol/frame_reader.h"

#include <algorithm>
#include <cstring>

namespace vyn::bm {

IoStatus FrameReader::WaitForFrame(Deadline deadline) {
  if (HasBuffered()) {
    return IoStatus::kOk;
  }
  std::size_t received = 0;
  const IoStatus status = mStream.Receive(mBuffer.data(), mBuffer.size(), received, deadline);
  mBegin = 0;
  mEnd = status == IoStatus::kOk ? received : 0;
  return status;
}

IoStatus FrameReader::ReadFrame(FrameHeader& header, std::string& head, Deadline deadline) {
  if (const IoStatus status = ReadData(&header, sizeof(header), deadline); status != IoStatus::kOk) {
    return status;
  }
  if (header.magic != kFrameMagic || header.headLength > kMaxHeadLength ||
      header.dataLength > kMaxDataLength) {
    return IoStatus::kFailed;
  }
  head.resize(header.headLength);
  return ReadData(head.data(), head.size(), deadline);
}

IoStatus FrameReader::ReadData(void* buffer, std::size_t length, Deadline deadline) {
  char* target = static_cast<char*>(buffer);
  while (length > 0) {
    if (HasBuffered()) {
      const std::size_t count = std::min(length, mEnd - mBegin);
      std::memcpy(target, mBuffer.data() + mBegin, count);
      mBegin += count;
      target += count;
      length -= count;
    } else if (length < mBuffer.size()) {
      if (const IoStatus status = WaitForFrame(deadline); status != IoStatus::kOk) {
        return status;
      }
    } else {
      std::size_t received = 0;
      if (const IoStatus status = mStream.Receive(target, length, received, deadline);
          status != IoStatus::kOk) {
        return status;
      }
      target += received;
      length -= received;
    }
  }
  return IoStatus::kOk;
}

IoStatus SendFrame(ByteStream& stream, const FrameHeader& header, std::string_view head, const void* data,
                   Deadline deadline, int descriptor) {
  iovec parts[3] = {{const_cast<FrameHeader*>(&header), sizeof(header)}};
  std::size_t count = 1;
  if (!head.empty()) {
    parts[count++] = {const_cast<char*>(head.data()), head.size()};
  }
  if (header.dataLength > 0 && data != nullptr) {
    parts[count++] = {const_cast<void*>(data), header.dataLength};
  }
  return stream.Send(parts, count, deadline, descriptor);
}

}  // namespace vyn::bm
