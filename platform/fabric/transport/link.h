#pragma once

// The two ends of a link, plain or under TLS. A side that uses TLS refuses a plain peer, and the other way
// round. A side sends nothing secret before it knows which of the two its peer uses.
// Threads: no state, any thread.

#include "platform/fabric/transport/socket_stream.h"
#include "platform/tls/tls_context.h"

#include <functional>
#include <memory>
#include <string>

namespace vyn::fabric {

/// How a process secures its links.
struct LinkSecurity {
  /// Null: plain.
  std::shared_ptr<tls::TlsContext> tls;
  /// Receives the reason when a link was refused; may be null.
  std::function<void(const std::string& text)> report;
};

/// Whether `host` is an address that needs no name service.
bool IsNumericAddress(const std::string& host);

/// Connects to a link port without TLS. \param host a numeric address. Returns: null on failure.
std::unique_ptr<SocketStream> DialLink(const std::string& host, std::uint16_t port, net::Deadline deadline);

/// Connects to a link port, under TLS where `security` says so. \param result of a failure: kBmUnconnected
/// when nobody answers; kBmRemoteProtocol when the peer speaks no TLS, or its certificate was refused.
/// Returns: null on failure.
std::unique_ptr<SocketStream> ConnectLink(const std::string& host, std::uint16_t port,
                                          const LinkSecurity& security, net::Deadline deadline, int& result);

/// Listens on a numeric address. \param port 0 for any; receives the port that was bound. Returns: an invalid
/// descriptor with `error` filled.
net::Descriptor ListenOnLinkPort(const std::string& address, std::uint16_t& port, std::string& error);

/// The node's side of a connection to its link port: finds out whether the peer uses TLS, and makes the TLS
/// handshake. \param context null for plain links. \param deadline of the peer's first byte, and of the
/// handshake. \param error the reason when the peer was refused; stays as it is when the peer just went away.
/// Returns: whether `socket` can be served; otherwise the connection is to be closed.
bool AcceptLink(SocketStream& socket, tls::TlsContext* context, net::Deadline deadline, std::string& error);

}  // namespace vyn::fabric
