#pragma once

// The ByteStream over a connected socket: plain, or under TLS after StartTls. Beyond the bytes it can pass
// file descriptors between processes of one machine, and send a file without copying it.
//
// Threads as of ByteStream.

#include "platform/fabric/protocol/byte_stream.h"

#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace vyn::fabric {

class SocketStream : public ByteStream {
 public:
  /// \param socket a connected stream socket, non-blocking. \param receivesDescriptors whether to keep
  /// descriptors that come with the bytes (a UNIX socket); otherwise the kernel closes them.
  explicit SocketStream(net::Descriptor socket, bool receivesDescriptors = false);

  /// Puts everything from here on under TLS and makes the handshake. \param tls a stream over Socket().
  /// Returns: kFailed when the peer speaks no TLS or was refused; Error() has the reason.
  net::IoStatus StartTls(std::unique_ptr<net::Stream> tls, net::Deadline deadline);
  const std::string& Error() { return mIo->Get().Error(); }

  net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received,
                        net::Deadline deadline) override;
  net::IoStatus Send(iovec* parts, std::size_t count, net::Deadline deadline, int descriptor = -1) override;
  net::IoStatus SendFile(int file, std::uint64_t offset, std::uint64_t length,
                         net::Deadline deadline) override;
  bool Quiet() override { return !mIo->Get().IsStale(); }
  bool PeerGone() override;
  net::Descriptor TakeDescriptor() override { return std::move(mReceived); }
  void Shutdown() override;

  int Socket() const { return mSocket.Get(); }

 private:
  class DescriptorStream;

  /// Finds out whether the peer reset a connection that has ended. Returns: kReset or kClosed when `status`
  /// is one of them, otherwise `status`.
  net::IoStatus WithReset(net::IoStatus status) const;
  /// Sends the first bytes together with `descriptor` and removes them from `parts`, of which the first
  /// `first` are finished afterwards.
  net::IoStatus SendDescriptor(iovec* parts, std::size_t count, std::size_t& first, net::Deadline deadline,
                               int descriptor);
  /// Waits until the peer has received everything that it was sent.
  net::IoStatus WaitUntilReceived(net::Deadline deadline);
  /// Waits one millisecond. Returns: kClosed when the connection has ended.
  net::IoStatus Pause(net::Deadline deadline);
  net::IoStatus SendBlocks(int file, std::uint64_t offset, std::uint64_t length, net::Deadline deadline);

  net::Descriptor mSocket;
  std::optional<net::BlockingStream> mIo;
  bool mIsTls = false;
  /// This side has shut the connection down: a reset that follows says nothing about what the peer has
  /// received.
  std::atomic<bool> mShutDown{false};
  net::Descriptor mReceived;
};

}  // namespace vyn::fabric
