#pragma once

// Bytes to and from a peer over a connected socket: as they are (PlainStream), or inside TLS
// (platform/tls/tls_context.h). No step waits: one that cannot go on says what the socket must become ready
// for. BlockingStream adds the waits.
//
// The owner of the socket outlives the stream. One thread uses a stream at a time.

#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <string>

namespace vyn::net {

enum class IoState {
  kDone,       ///< some bytes moved, or the step is complete
  kWantRead,   ///< again when the socket is readable
  kWantWrite,  ///< again when the socket is writable
  kClosed,     ///< the peer has closed or reset the connection
  kFailed,     ///< the peer's bytes or its identity were refused; Stream::Error() has the reason
};

struct IoResult {
  IoState mState;
  std::size_t mBytes = 0;
  /// A read returned less than was asked for: another one would most likely find nothing.
  bool mIsShort = false;
};

class Stream {
 public:
  virtual ~Stream() = default;

  /// One step of the handshake that must precede the first byte. kDone once it is complete, and at once for a
  /// stream without one.
  virtual IoState Handshake() = 0;
  /// Reads at least one byte and at most `size`. Requires: size > 0.
  virtual IoResult Read(void* data, std::size_t size) = 0;
  /// Writes some of the bytes of `parts`. After kWantWrite or kWantRead the next call begins with the same
  /// bytes. Requires: there is a byte.
  virtual IoResult Write(const iovec* parts, std::size_t count) = 0;
  /// Whether a read may return bytes although the socket is not readable.
  virtual bool HasBuffered() const = 0;
  /// For a stream on which nothing is expected: whether the peer has closed it or sent something.
  virtual bool IsStale() = 0;
  /// Tells the peer that the stream ends, if the protocol has a message for that and the socket takes it at
  /// once.
  virtual void Close() = 0;

  const std::string& Error() const { return mError; }
  /// After kClosed: whether a step found the connection reset, so that the peer has not received everything
  /// that it was sent. A reset that arrives after the end of the peer's own bytes shows in the socket only.
  bool WasReset() const { return mWasReset; }

 protected:
  std::string mError;
  bool mWasReset = false;
};

/// The bytes as they are.
class PlainStream : public Stream {
 public:
  explicit PlainStream(int descriptor) : mDescriptor(descriptor) {}

  /// With true a read or a write that finds nothing to do waits in the kernel until the socket's own time
  /// limit (SO_RCVTIMEO, SO_SNDTIMEO), and only then says kWantRead or kWantWrite. Requires: a blocking
  /// socket.
  void SetKernelWait(bool waits) { mKernelWait = waits; }
  bool KernelWait() const { return mKernelWait; }

  IoState Handshake() override { return IoState::kDone; }
  IoResult Read(void* data, std::size_t size) override;
  IoResult Write(const iovec* parts, std::size_t count) override;
  bool HasBuffered() const override { return false; }
  bool IsStale() override;
  void Close() override {}

 protected:
  /// What a call of the system that failed with errno means. \param wait what it waits for.
  IoState StateOfError(IoState wait);
  int Socket() const { return mDescriptor; }

 private:
  int WaitFlag() const { return mKernelWait ? 0 : MSG_DONTWAIT; }

  const int mDescriptor;
  bool mKernelWait = false;
};

/// Removes `bytes` from the front of `parts`, of which the first `first` are finished already.
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

}  // namespace vyn::net
