#pragma once

// The bytes on the wire, the same over plain TCP and inside TLS. All numbers in the byte order of the host,
// which is little-endian on every supported machine.
//
//   Each side sends one greeting as soon as the connection (with TLS: the handshake) stands.
//   greeting   magic "VYNR" | version u16 | 0 u16 | status i32 | longest frame it takes u32
//   A server that turns the connection away says why in the status and closes.
//
//   Then the client sends requests and the server replies, in any order, each with the call number of its
//   request. frame      magic "VYNF" | body length u32 | call u64 | message id u32 | status i32 | body A
//   reply with a status other than 0 was made by the transport, not by a handler, and has no body.

#include "platform/rpc/wire/message.h"
#include "platform/rpc/wire/status.h"

#include <cstddef>
#include <cstdint>
#include <limits>
#include <string>

namespace vyn::rpc {

struct Greeting {
  std::uint32_t mMagic = kMagic;
  std::uint16_t mVersion = kVersion;
  std::uint16_t mReserved = 0;
  std::int32_t mStatus = kOk;
  std::uint32_t mMaxLength = 0;

  static constexpr std::uint32_t kMagic = 0x524e5956;  // "VYNR"
  static constexpr std::uint16_t kVersion = 1;
};
static_assert(sizeof(Greeting) == 16);

struct FrameHeader {
  std::uint32_t mMagic = kMagic;
  std::uint32_t mLength = 0;
  std::uint64_t mCall = 0;
  std::uint32_t mId = 0;
  std::int32_t mStatus = kOk;

  static constexpr std::uint32_t kMagic = 0x464e5956;  // "VYNF"
};
static_assert(sizeof(FrameHeader) == 24);

/// Lengths are counted in signed 32 bits by what reads the bodies.
inline constexpr std::size_t kLongestFrame = (std::size_t{1} << 31) - (std::size_t{1} << 20);
/// What a client takes as a reply. The memory is touched only as the bytes arrive.
inline constexpr std::size_t kLongestReply = std::size_t{1} << 30;

/// Returns: null, or what is wrong with the peer's greeting. The status in it is not looked at.
const char* CheckGreeting(const Greeting& greeting);
/// Returns: null, or what is wrong with a header on a side that takes bodies of at most `maxLength` bytes.
const char* CheckHeader(const FrameHeader& header, std::size_t maxLength);

/// A frame that has arrived: its header, and a message with its body in one buffer, or in none if it has no
/// byte.
struct Frame {
  FrameHeader mHeader;
  Message mMessage{MessageId()};
};

}  // namespace vyn::rpc
