#pragma once

// The bytes on the wire, the same over plain TCP and inside TLS. All numbers in the byte order of the host,
// which is little-endian on every supported machine.
//
//   Each side sends one greeting as soon as the connection (with TLS: the handshake) is made.
//   greeting   magic "VYNR" | version u16 | 0 u16 | status i32 | longest frame it accepts u32
//   A server that refuses the connection puts the reason into the status and closes.
//
//   Then the client sends requests and the server replies, in any order, each with the call number of its
//   request.
//   frame      magic "VYNF" | body length u32 | call u64 | message id u32 | status i32 | body
//   A reply with a status other than 0 was made by the transport, not by a handler, and has no body.
//
// Threads: the functions have no state; a record belongs to one thread at a time.

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

struct RpcFrameHeader {
  std::uint32_t mMagic = kMagic;
  std::uint32_t mLength = 0;
  std::uint64_t mCall = 0;
  std::uint32_t mId = 0;
  std::int32_t mStatus = kOk;

  static constexpr std::uint32_t kMagic = 0x464e5956;  // "VYNF"
};
static_assert(sizeof(RpcFrameHeader) == 24);

/// The readers of bodies count lengths in signed 32 bits.
inline constexpr std::size_t kLongestFrame = (std::size_t{1} << 31) - (std::size_t{1} << 20);
/// The longest reply that a client accepts. The memory is touched only as the bytes arrive.
inline constexpr std::size_t kLongestReply = std::size_t{1} << 30;

/// Returns: null, or what is wrong with the peer's greeting. The status in it is not checked.
const char* CheckGreeting(const Greeting& greeting);
/// Returns: null, or what is wrong with a header for a side that accepts bodies of at most `maxLength` bytes.
const char* CheckHeader(const RpcFrameHeader& header, std::size_t maxLength);

/// A frame that has arrived: its header, and a message with its body in one buffer, or in none if it has no
/// byte.
struct RpcFrame {
  RpcFrameHeader mHeader;
  Message mMessage{MessageId()};
};

}  // namespace vyn::rpc
