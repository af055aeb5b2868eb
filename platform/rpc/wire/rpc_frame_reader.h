#pragma once

// Assembles frames from the bytes of a stream. A frame is read directly into the block of memory that its
// message then owns; frames that arrive together in one block are copied out of it. A length is checked
// before memory is allocated for it.
//
// One thread uses a reader at a time.

#include "platform/net/stream.h"
#include "platform/rpc/wire/frame.h"

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace vyn::rpc {

/// The address of a body, modulo 8. A request begins with a version of 2 bytes, a response with a result word
/// of 4; the flatbuffer that follows is then aligned to 8.
inline constexpr std::size_t kRequestAlignment = 6;
inline constexpr std::size_t kReplyAlignment = 4;

class RpcFrameReader {
 public:
  /// The smallest and the largest block that is allocated before the length of a frame is known. A frame
  /// above the latter is a long frame.
  static constexpr std::size_t kSmallBlock = 4096;
  static constexpr std::size_t kLargeBlock = std::size_t{128} << 10;

  enum class State {
    kFrame,      ///< `frame` is filled
    kLongFrame,  ///< LongLength() bytes are to come, not yet allocated; AcceptLongFrame() lets Next go on
    kWantRead,   ///< again when the socket is readable
    kWantWrite,  ///< again when the socket is writable (TLS)
    kClosed,     ///< the peer closed the connection
    kFailed,     ///< the bytes were refused, or there is no memory; Error() has the reason
  };

  RpcFrameReader(std::size_t bodyAlignment, std::size_t maxLength)
      : mLead(bodyAlignment), mMaxLength(maxLength) {}

  /// Reads until a frame is complete or the stream has no more bytes for now.
  State Next(net::Stream& stream, RpcFrame& frame);
  /// The socket is readable: the next call of Next reads, even after a short read.
  void OnReadable() { mLastReadWasShort = false; }
  /// From now on Next reads until the stream says kWantRead. Without this a short read counts as a sign that
  /// the socket is empty, which is not so under TLS, nor after the peer has closed its end.
  void DisableShortReadShortcut() {
    mShortReadShortcut = false;
    mLastReadWasShort = false;
  }
  /// After kLongFrame: the length of the body.
  std::size_t LongLength() const { return mLongLength; }
  void AcceptLongFrame() { mAccepted = true; }
  /// Whether bytes after the last complete frame have arrived.
  bool IsInFrame() const { return mBegin != mEnd; }
  const char* Error() const { return mError; }

 private:
  struct Free {
    void operator()(char* block) const { std::free(block); }
  };
  using Block = std::unique_ptr<char, Free>;

  bool MakeRoom(std::size_t frameLength);
  bool ExtractFrame(const RpcFrameHeader& header, RpcFrame& frame);
  State Fail(const char* error) {
    mError = error;
    return State::kFailed;
  }

  const std::size_t mLead;
  const std::size_t mMaxLength;
  Block mBlock;  // the unread bytes are [mBegin, mEnd) of it
  std::size_t mCapacity = 0;
  std::size_t mBegin = 0;
  std::size_t mEnd = 0;
  std::size_t mExpected = kSmallBlock;
  std::size_t mLongLength = 0;
  bool mAccepted = false;
  bool mShortReadShortcut = true;
  bool mLastReadWasShort = false;
  const char* mError = "";
};

}  // namespace vyn::rpc
