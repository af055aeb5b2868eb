#include "platform/fabric/protocol/link.h"

#include "platform/fabric/protocol/frame_reader.h"
#include "platform/fabric/protocol/sockets.h"
#include "platform/fabric/protocol/tls_link.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace vyn::bm {

namespace {

/// By its first byte a peer tells how it speaks: the record type of a TLS handshake, or our frames' magic.
constexpr unsigned char kTlsPeer = 0x16;
constexpr unsigned char kPlainPeer = kFrameMagic & 0xffU;
/// How long a refused peer is given to take the answer and close.
constexpr std::chrono::milliseconds kRefusedTime{1000};

/// Waits for the peer's first byte and leaves it where it is. Returns: false when it does not come.
bool PeekFirst(SocketStream& socket, Deadline deadline, unsigned char& byte) {
  for (;;) {
    const ssize_t count = ::recv(socket.Socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (count == 1) {
      return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      return false;
    }
    if (errno == EAGAIN && socket.Wait(POLLIN, deadline) != IoStatus::kOk) {
      return false;
    }
  }
}

/// Answers a hello that cannot be: a plain peer reads its result, one that wants TLS sees that this is none.
void Refuse(SocketStream& socket) {
  const Deadline deadline = After(kRefusedTime);
  const FrameHeader answer{
      kFrameMagic, static_cast<std::uint16_t>(Operation::kHello), 0, 0, kBmRemoteProtocol, 0, 0};
  IoStatus status = SendFrame(socket, answer, {}, nullptr, deadline);
  // Closed with bytes unread, the connection would be reset and the answer lost.
  std::array<char, 4096> rest;
  std::size_t received = 0;
  while (status == IoStatus::kOk && std::chrono::steady_clock::now() < deadline) {
    status = socket.Receive(rest.data(), rest.size(), received, deadline);
  }
}

}  // namespace

std::unique_ptr<ByteStream> ConnectLink(const std::string& host, std::uint16_t port,
                                        const LinkSecurity& security, Deadline deadline, int& result) {
  int error = 0;
  auto socket = ConnectToLink(host, port, deadline, error);
  if (socket == nullptr || security.tls == nullptr) {
    result = kBmUnconnected;
    return socket;
  }
  SocketStream& connected = *socket;
  auto tls = security.tls->NewStream(connected.Socket());
  if (tls == nullptr) {
    result = kBmLocalError;
    return nullptr;
  }
  auto link = std::make_unique<TlsLink>(connected, std::move(socket), std::move(tls));
  const IoStatus status = link->Handshake(deadline);
  if (status == IoStatus::kOk) {
    return link;
  }
  result = status == IoStatus::kFailed ? kBmRemoteProtocol : kBmUnconnected;
  if (status == IoStatus::kFailed && security.report != nullptr) {
    security.report("the link to " + host + " port " + std::to_string(port) +
                    " was refused, TLS handshake: " + link->Error());
  }
  return nullptr;
}

ByteStream* AcceptLink(SocketStream& socket, tls::TlsContext* context, Deadline deadline,
                       std::unique_ptr<ByteStream>& secured, std::string& error) {
  unsigned char first = 0;
  if (!PeekFirst(socket, deadline, first)) {
    return nullptr;
  }
  if (first == (context != nullptr ? kPlainPeer : kTlsPeer)) {
    error = context != nullptr ? "it speaks no TLS" : "it wants TLS, which is off here";
    Refuse(socket);
    return nullptr;
  }
  if (context == nullptr) {
    return &socket;
  }
  auto tls = context->NewStream(socket.Socket());
  if (tls == nullptr) {
    error = "no memory for a TLS connection";
    return nullptr;
  }
  auto link = std::make_unique<TlsLink>(socket, nullptr, std::move(tls));
  if (link->Handshake(deadline) != IoStatus::kOk) {
    error = link->Error();
    return nullptr;
  }
  secured = std::move(link);
  return secured.get();
}

}  // namespace vyn::bm
