#include "platform/fabric/transport/link.h"

#include "platform/fabric/protocol/fabric_frame_reader.h"
#include "platform/net/address.h"
#include "platform/net/dialer.h"
#include "platform/net/sockets.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace vyn::fabric {

namespace {

/// The first byte of a peer shows whether it uses TLS: it is the record type of a TLS handshake, or the first
/// byte of kFrameMagic.
constexpr unsigned char kTlsPeer = 0x16;
constexpr unsigned char kPlainPeer = kFrameMagic & 0xffU;
/// How long a refused peer may take to read the answer and close.
constexpr std::chrono::milliseconds kRefusedTime{1000};
constexpr int kBacklog = 256;

/// Waits for the peer's first byte and leaves it in the socket. Returns: false when it does not come.
bool PeekFirst(const SocketStream& socket, const net::Deadline& deadline, unsigned char& byte) {
  for (;;) {
    const ssize_t count = ::recv(socket.Socket(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    if (count == 1) {
      return true;
    }
    if (count == 0 || (errno != EAGAIN && errno != EINTR)) {
      return false;
    }
    if (errno == EAGAIN && !net::WaitFor(socket.Socket(), POLLIN, deadline)) {
      return false;
    }
  }
}

/// Answers the first bytes of a refused peer. A plain peer reads the result; a peer that uses TLS sees that
/// the answer is no TLS.
void Refuse(SocketStream& socket) {
  const net::Deadline deadline = net::Deadline::After(kRefusedTime);
  const FabricFrameHeader answer{
      kFrameMagic, static_cast<std::uint16_t>(FabricOperation::kHello), 0, 0, kBmRemoteProtocol, 0, 0};
  net::IoStatus status = SendFrame(socket, answer, {}, nullptr, deadline);
  // If the socket were closed with bytes unread, the kernel would reset the connection and the answer would
  // be lost.
  std::array<char, 4096> rest;
  std::size_t received = 0;
  while (status == net::IoStatus::kOk && !deadline.IsOver()) {
    status = socket.Receive(rest.data(), rest.size(), received, deadline);
  }
}

}  // namespace

bool IsNumericAddress(const std::string& host) { return net::Address().Parse(host, 0); }

std::unique_ptr<SocketStream> DialLink(const std::string& host, std::uint16_t port, net::Deadline deadline) {
  net::DialOptions options;
  options.mKeepAliveSeconds = -1;
  net::Descriptor socket;
  return net::Dial(host, port, options, deadline, socket).Ok()
             ? std::make_unique<SocketStream>(std::move(socket))
             : nullptr;
}

std::unique_ptr<SocketStream> ConnectLink(const std::string& host, std::uint16_t port,
                                          const LinkSecurity& security, net::Deadline deadline, int& result) {
  auto link = DialLink(host, port, deadline);
  if (link == nullptr || security.tls == nullptr) {
    result = kBmUnconnected;
    return link;
  }
  auto tls = security.tls->NewStream(link->Socket());
  if (tls == nullptr) {
    result = kBmLocalError;
    return nullptr;
  }
  const net::IoStatus status = link->StartTls(std::move(tls), deadline);
  if (status == net::IoStatus::kOk) {
    return link;
  }
  result = status == net::IoStatus::kFailed ? kBmRemoteProtocol : kBmUnconnected;
  if (status == net::IoStatus::kFailed && security.report != nullptr) {
    security.report("the link to " + host + " port " + std::to_string(port) +
                    " was refused, TLS handshake: " + link->Error());
  }
  return nullptr;
}

net::Descriptor ListenOnLinkPort(const std::string& address, std::uint16_t& port, std::string& error) {
  const std::string where = address + " port " + std::to_string(port);
  net::Descriptor listener;
  const net::NetOutcome outcome = net::Listen(address, port, kBacklog, listener);
  if (outcome.mStatus == net::NetStatus::kBadAddress) {
    error = "not a numeric address to listen on: " + where;
  } else if (!outcome.Ok()) {
    error = "cannot listen on " + where + ": " + outcome.mText;
  }
  return listener;
}

bool AcceptLink(SocketStream& socket, tls::TlsContext* context, net::Deadline deadline, std::string& error) {
  unsigned char first = 0;
  if (!PeekFirst(socket, deadline, first)) {
    return false;
  }
  if (first == (context != nullptr ? kPlainPeer : kTlsPeer)) {
    error = context != nullptr ? "it speaks no TLS" : "it wants TLS, which is off here";
    Refuse(socket);
    return false;
  }
  if (context == nullptr) {
    return true;
  }
  auto tls = context->NewStream(socket.Socket());
  if (tls == nullptr) {
    error = "no memory for a TLS connection";
    return false;
  }
  if (socket.StartTls(std::move(tls), deadline) != net::IoStatus::kOk) {
    error = socket.Error();
    return false;
  }
  return true;
}

}  // namespace vyn::fabric
