#pragma once

// Bytes to and from a peer over a connected, non-blocking socket: inside TLS (tls_context.h), or as they are
// where their owner has a class for that. Nothing here waits; a step that cannot go on says what the socket
// must become ready for.
//
// The owner of the socket outlives the stream. One thread uses a stream at a time.

#include <sys/uio.h>

#include <cstddef>
#include <string>

namespace vyn::tls {

enum class IoState {
  kDone,       ///< some bytes moved, or the step is complete
  kWantRead,   ///< again when the socket is readable
  kWantWrite,  ///< again when the socket is writable
  kClosed,     ///< the peer has closed or reset the connection
  kFailed,     ///< the peer's bytes or its identity were refused; Stream::Error() has the words
};

struct IoResult {
  IoState mState;
  std::size_t mBytes = 0;
  /// A read got all that there was, so that another one would most likely get nothing.
  bool mDrained = false;
};

class Stream {
 public:
  virtual ~Stream() = default;

  /// One step of what comes before the first byte. kDone when nothing is left of it.
  virtual IoState Handshake() = 0;
  /// Reads at least one byte and at most `size`. Requires: size > 0.
  virtual IoResult Read(void* data, std::size_t size) = 0;
  /// Writes some of the bytes of `parts`. After kWantWrite or kWantRead the next call begins with the same
  /// bytes. Requires: there is a byte.
  virtual IoResult Write(const iovec* parts, std::size_t count) = 0;
  /// Whether a read may yield something although the socket is not readable.
  virtual bool HasBuffered() const = 0;
  /// For a stream on which nothing is expected: whether the peer has closed it or sent something.
  virtual bool IsStale() = 0;
  /// Says goodbye if the protocol has a word for it and the socket takes it at once.
  virtual void Close() = 0;

  const std::string& Error() const { return mError; }
  /// After kClosed: whether a step found the connection reset, so that the peer has not taken all that it was
  /// sent. A reset behind the end of the peer's own bytes shows in the socket only.
  bool WasReset() const { return mWasReset; }

 protected:
  std::string mError;
  bool mWasReset = false;
};

/// Takes `bytes` off the front of `parts`, of which `first` are finished already.
inline void Advance(iovec* parts, std::size_t count, std::size_t& first, std::size_t bytes) {
  while (first < count && bytes >= parts[first].iov_len) {
    bytes -= parts[first].iov_len;
    ++first;
  }
  if (bytes > 0) {
    parts[first].iov_base = static_cast<char*>(parts[first].iov_base) + bytes;
    parts[first].iov_len -= bytes;
  }
}

}  // namespace vyn::tls
