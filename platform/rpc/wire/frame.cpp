#include "platform/rpc/wire/frame.h"

namespace vyn::rpc {

const char* CheckGreeting(const Greeting& greeting) {
  if (greeting.mMagic != Greeting::kMagic || greeting.mReserved != 0) {
    return "its first bytes are no greeting of this protocol";
  }
  if (greeting.mVersion != Greeting::kVersion) {
    return "it speaks another version of the transport";
  }
  return nullptr;
}

const char* CheckHeader(const RpcFrameHeader& header, std::size_t maxLength) {
  if (header.mMagic != RpcFrameHeader::kMagic) {
    return "a frame does not begin with its mark";
  }
  if ((header.mId & ~MessageId::kMask) != 0) {
    return "a message id has more than 10 bits";
  }
  if (header.mLength > maxLength) {
    return "a frame is longer than the limit";
  }
  if (header.mStatus != kOk && header.mLength != 0) {
    return "a frame has both a status and a body";
  }
  return nullptr;
}

}  // namespace vyn::rpc
