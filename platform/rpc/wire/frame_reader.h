#pragma once

// Puts frames together out of what a stream gives. A frame is read straight into the block of memory that its
// message then owns; only frames that arrive several at a time are copied out of their common block. A length
// is checked before memory is taken for it.
//
// One thread uses a reader at a time.

#include "platform/net/stream.h"
#include "platform/rpc/wire/frame.h"

#include <cstddef>
#include <cstdlib>
#include <memory>

namespace vyn::rpc {

/// Where a body lies, modulo 8. A request begins with a version of 2 bytes, a response with a result word of
/// 4; what follows them is then aligned as its reader likes it.
inline constexpr std::size_t kRequestAlignment = 6;
inline constexpr std::size_t kReplyAlignment = 4;

class FrameReader {
 public:
  /// The smallest and the largest block that is taken before the length of a frame is known. A frame above
  /// the latter is a long one.
  static constexpr std::size_t kSmallBlock = 4096;
  static constexpr std::size_t kLargeBlock = std::size_t{128} << 10;

  enum class State {
    kFrame,      ///< `frame` is filled
    kLongFrame,  ///< LongLength() bytes are to come, without memory as yet; Accept() lets Next go on
    kWantRead,   ///< again when the socket is readable
    kWantWrite,  ///< again when the socket is writable (TLS)
    kClosed,     ///< the peer closed the connection
    kFailed,     ///< the bytes were refused, or there is no memory; Error() has the words
  };

  FrameReader(std::size_t bodyAlignment, std::size_t maxLength)
      : mLead(bodyAlignment), mMaxLength(maxLength) {}

  /// Reads until a frame is whole or the stream has no more for now.
  State Next(Stream& stream, Frame& frame);
  /// The socket is readable: Next has to look, whatever the last read found.
  void Woken() { mDrained = false; }
  /// From here on a read that got all there was is not believed: only the stream's own word ends Next.
  void ReadToEnd() {
    mToEnd = true;
    mDrained = false;
  }
  /// The length of the body that kLongFrame told of.
  std::size_t LongLength() const { return mLongLength; }
  void Accept() { mAccepted = true; }
  /// Whether bytes behind the last whole frame have arrived.
  bool IsInFrame() const { return mBegin != mEnd; }
  const char* Error() const { return mError; }

 private:
  struct Free {
    void operator()(char* block) const { std::free(block); }
  };
  using Block = std::unique_ptr<char, Free>;

  bool MakeRoom(std::size_t frameLength);
  bool Take(const FrameHeader& header, Frame& frame);
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
  bool mDrained = false;  // the last read took all that there was
  bool mToEnd = false;
  const char* mError = "";
};

}  // namespace vyn::rpc
