#pragma once

// What frames travel over: a reliable stream of bytes, whatever carries it. The product has one
// implementation (transport/socket_stream.h); tests have others, which fail on demand.
//
// One thread at a time uses a stream; Shutdown alone may be called beside it.

#include "platform/net/blocking_stream.h"
#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

namespace vyn::fabric {

class ByteStream {
 public:
  ByteStream() = default;
  ByteStream(const ByteStream&) = delete;
  ByteStream& operator=(const ByteStream&) = delete;
  virtual ~ByteStream() = default;

  /// Waits for bytes and returns those that are there. \param room at least 1. \param received 1 to `room` on
  /// success.
  virtual net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received,
                                net::Deadline deadline) = 0;

  /// Sends all bytes of all parts. The entries of `parts` are used up. \param descriptor when not negative,
  /// it travels with the first byte; only a stream between processes of one machine can do that.
  virtual net::IoStatus Send(iovec* parts, std::size_t count, net::Deadline deadline,
                             int descriptor = -1) = 0;

  /// Sends `length` bytes of a file from `offset`. kFailed when the file turns out to be shorter.
  virtual net::IoStatus SendFile(int file, std::uint64_t offset, std::uint64_t length,
                                 net::Deadline deadline) = 0;

  /// Whether the peer is still there and has sent nothing that was not received.
  virtual bool Quiet() = 0;

  /// Whether the peer has closed its end. Bytes that it sent before may still be waiting.
  virtual bool PeerGone() = 0;

  /// The descriptor that came with the bytes received last, if any.
  virtual net::Descriptor TakeDescriptor() { return {}; }

  /// Ends all waiting on this stream. Any thread may call it.
  virtual void Shutdown() = 0;
};

}  // namespace vyn::fabric
