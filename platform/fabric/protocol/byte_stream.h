#pragma once

// What frames travel over: a reliable stream of bytes, whatever carries it. The frames know nothing of
// sockets, so that a link can change to an encrypted transport by another implementation of this class.
//
// One thread at a time uses a stream; Shutdown alone may be called beside it.

#include "platform/fabric/protocol/file_descriptor.h"

#include <sys/uio.h>

#include <chrono>
#include <cstddef>
#include <cstdint>

namespace vyn::bm {

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline After(std::chrono::milliseconds time) { return std::chrono::steady_clock::now() + time; }

enum class IoStatus {
  kOk,
  kClosed,   ///< the other side is gone
  kReset,    ///< the other side is gone and has not taken all that it was sent
  kTimeout,  ///< the deadline has passed
  kFailed,   ///< what arrived is no frame, or this side gave up; the stream is of no use any more
};

class ByteStream {
 public:
  ByteStream() = default;
  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;
  virtual ~ByteStream() = default;

  /// Waits for bytes and takes what is there. \param room at least 1. \param received 1 to `room` on success.
  virtual IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, Deadline deadline) = 0;

  /// Sends all bytes of all parts. The entries of `parts` are used up. \param descriptor when not negative,
  /// it travels with the first byte; only a stream between processes of one machine can do that.
  virtual IoStatus Send(iovec* parts, std::size_t count, Deadline deadline, int descriptor = -1) = 0;

  /// Sends `length` bytes of a file from `offset`. kFailed when the file turns out to be shorter.
  virtual IoStatus SendFile(int file, std::uint64_t offset, std::uint64_t length, Deadline deadline) = 0;

  /// Whether the other side is still there and has sent nothing that was not received.
  virtual bool Quiet() = 0;

  /// Whether the other side has closed its end. Bytes that it sent before may still wait.
  virtual bool PeerGone() = 0;

  /// The descriptor that came with the bytes received last, if any.
  virtual FileDescriptor TakeDescriptor() { return {}; }

  /// Ends all waiting on this stream. Any thread may call it.
  virtual void Shutdown() = 0;
};

}  // namespace vyn::bm
