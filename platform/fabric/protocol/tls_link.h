#pragma once

// A ByteStream of a link under TLS.

#include "platform/fabric/protocol/socket_stream.h"
#include "platform/tls/stream.h"

#include <memory>
#include <string>

namespace vyn::bm {

class TlsLink : public ByteStream {
 public:
  /// \param socket the connected socket. \param owned the same when it is to end with this, otherwise null
  /// and the socket outlives this. \param tls a stream over it.
  TlsLink(SocketStream& socket, std::unique_ptr<SocketStream> owned, std::unique_ptr<tls::Stream> tls)
      : mOwned(std::move(owned)), mSocket(socket), mTls(std::move(tls)) {}

  /// What comes before the first byte. kFailed when the peer speaks no TLS or was refused: Error() tells.
  IoStatus Handshake(Deadline deadline);
  const std::string& Error() const { return mTls->Error(); }

  IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, Deadline deadline) override;
  /// Takes no descriptor.
  IoStatus Send(iovec* parts, std::size_t count, Deadline deadline, int descriptor) override;
  IoStatus SendFile(int file, std::uint64_t offset, std::uint64_t length, Deadline deadline) override;
  bool Quiet() override { return !mTls->IsStale(); }
  bool PeerGone() override { return mSocket.PeerGone(); }
  void Shutdown() override { mSocket.Shutdown(); }

 private:
  /// For a step that did not complete: waits for what it wants, or tells how the stream ended.
  IoStatus After(tls::IoState state, Deadline deadline);

  // The socket is closed without TLS's word of goodbye. Frames tell by themselves where they end, and a
  // forked child that drops its parent's connections must not speak on them.
  const std::unique_ptr<SocketStream> mOwned;
  SocketStream& mSocket;
  const std::unique_ptr<tls::Stream> mTls;
};

}  // namespace vyn::bm
