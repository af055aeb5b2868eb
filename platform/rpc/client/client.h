#pragma once

// The client's end: one connection to one server, one synchronous call at a time.
//
// A call that timed out or broke closes the connection, so that a late reply can never be taken for that of a
// later call; the next call connects again by itself, within its own time and at most the reconnect limit. A
// connection that the server closed between two calls is noticed before anything is sent, and costs the
// caller only the reconnect. If the two calls begin within 100 microseconds this is not checked, and the
// second call may fail.
//
// The transport's settings are read from the environment when the client is made: UCX_TLS (empty, unset or
// "tcp"; anything else is refused at connect, since no engine for it is present), UCX_NET_DEVICES (interface
// names; peers on this host are reached without it), UCX_TCP_PORT_RANGE ("40000-61000": bounds the local
// port) and UCX_TCP_KEEPINTVL ("60s").
//
// One thread uses a client at a time. Any thread may call Abandon at the same time.

#include "platform/rpc/server/context.h"
#include "platform/rpc/wire/message.h"
#include "platform/rpc/wire/status.h"

#include <map>
#include <memory>
#include <string>

namespace vyn::rpc {

/// The most reconnects that a client may be set to make within one call.
inline constexpr int kMaxReconnectCeiling = 128;

class ClientConnection;

class Client {
 public:
  /// Does not connect. \param ip an IPv4 or IPv6 address in text form.
  /// \param options kept for the peer group; no key changes the transport.
  Client(std::string ip, unsigned short port, std::map<std::string, std::string> options);
  virtual ~Client();
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// How many times one call tries to connect; it always tries once. A value below 0 or above
  /// kMaxReconnectCeiling is ignored.
  void SetMaxReconnectTimes(int times);

  /// Connects, within the time given to SecuredClient::Initialize. Returns: whether it is connected; if
  /// not, SecuredClient::mLastErrorMessage has the reason.
  virtual bool Connect();

  /// Sends `request` and waits for its reply. The buffers of `request` must live until this returns.
  /// \param response its buffers are replaced by the reply's one buffer, which it owns; none if the reply is
  /// empty. \param callback may be null; is called before this returns. Returns: true when the reply is
  /// there. On false `context->mStatus` is set and mLastErrorMessage has the details.
  virtual bool SyncCall(ClientContext* context, Message* request, Message* response, Callback* callback);

  /// Ends the call under way, and fails all later ones, with kConnectionLost.
  void Abandon();

 protected:
  std::unique_ptr<ClientConnection> mConnection;
};

/// A client with the settings for TLS and for authentication. With TLS nothing is ever sent in plain text;
/// with authentication every Initialize is refused until a mechanism exists behind "auth.type".
class SecuredClient : public Client {
 public:
  SecuredClient(std::string ip, unsigned short port, std::map<std::string, std::string> options, bool tls,
                bool authentication);
  ~SecuredClient() override;

  /// Takes the security settings and the time for connecting. Reads with TLS on:
  ///   "tls.ca.cert.path"  the certificates that the server's must lead to (PEM); required
  ///   "tls.crl.path"      revocation lists (PEM), one for each authority of the chain; may be empty
  ///   "tls.peer.name"     host name or IP address that the server's certificate must name; may be absent
  /// \param timeout milliseconds; below 1 is no limit.
  /// Returns: true on success; on false mLastErrorMessage holds the text and no connection can be made.
  bool Initialize(const std::map<std::string, const std::string>& securityConf, long timeout);

  /// Closes the connection if there is one and connects again, at most the reconnect limit, within
  /// `context->mTimeout`. \param authenticate whether the peer is to be authenticated as well, which the flag
  /// alone decides today. Returns: true on success; on false `context->mStatus` is set.
  bool ReconnectAndAuth(ClientContext* context, bool authenticate);

  /// The reason why the thread's last failed operation of any client failed.
  static thread_local std::string mLastErrorMessage;

 private:
  bool mTls;
  bool mAuthentication;
};

}  // namespace vyn::rpc
