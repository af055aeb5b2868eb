#pragma once

// The two ends of a link, plain or under TLS. Neither side goes on with a peer that speaks the other way, and
// no side says anything of a request before it knows: the hello of a plain connection holds no secret.
// Threads: no state, any thread.

#include "platform/fabric/protocol/socket_stream.h"
#include "platform/tls/tls_context.h"

#include <functional>
#include <memory>
#include <string>

namespace vyn::bm {

/// How a process makes its links.
struct LinkSecurity {
  /// Null: plain.
  std::shared_ptr<tls::TlsContext> tls;
  /// Gets the words of a link that was refused; may be null.
  std::function<void(const std::string& text)> report;
};

/// Connects to a link port. \param result of a failure: kBmUnconnected when nobody answers; kBmRemoteProtocol
/// when the peer speaks no TLS, or its certificate was refused. Returns: null on failure.
std::unique_ptr<ByteStream> ConnectLink(const std::string& host, std::uint16_t port,
                                        const LinkSecurity& security, Deadline deadline, int& result);

/// The node's side of a connection that has come in by the link port. \param context null for plain links.
/// \param deadline of the peer's first byte, and of the handshake. \param secured receives the stream under
/// TLS, which `socket` outlives. \param error the words when the peer was refused; stays as it is when the
/// peer just went away. Returns: the stream to serve, `socket` itself when it is plain; null when the
/// connection is to be closed.
ByteStream* AcceptLink(SocketStream& socket, tls::TlsContext* context, Deadline deadline,
                       std::unique_ptr<ByteStream>& secured, std::string& error);

}  // namespace vyn::bm
