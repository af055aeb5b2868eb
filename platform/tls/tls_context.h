#pragma once

// What TLS needs to know before a connection: the trust of a client, or the identity of a server. TLS 1.3
// only, through the libraries that platform/openssl_dl has opened.
//
// Several threads may use a context at once, each its own streams of it. A client's context also keeps the
// session of the stream that was closed last (Stream::Close), so that the next handshake needs no
// certificates; only one thread at a time may close streams of a client's context.

#include "platform/net/stream.h"

#include <map>
#include <memory>
#include <string>

struct ssl_ctx_st;
struct ssl_session_st;

namespace vyn::openssl_dl {
struct Api;
}  // namespace vyn::openssl_dl

namespace vyn::tls {

class TlsContext : public std::enable_shared_from_this<TlsContext> {
 public:
  /// Settings by name, as the process set-up makes them out of the configuration.
  using SecurityMap = std::map<std::string, const std::string>;

  /// Takes "tls.ca.cert.path", and if they are there "tls.crl.path" and "tls.peer.name", the name or address
  /// that the peer's certificate must have. Returns: null with `error` filled.
  static std::shared_ptr<TlsContext> ForClient(const SecurityMap& conf, std::string& error);
  /// Takes "tls.cert.path", "tls.key.path", "tls.key.encrypted" ("true" or not), "tls.key.pass.path".
  /// Returns: null with `error` filled.
  static std::shared_ptr<TlsContext> ForServer(const SecurityMap& conf, std::string& error);

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  /// A stream of this side over a connected socket. Null without memory.
  std::unique_ptr<net::Stream> NewStream(int descriptor);

 private:
  friend class TlsStream;

  TlsContext(const openssl_dl::Api* api, bool server) : mApi(api), mServer(server) {}
  static std::shared_ptr<TlsContext> New(bool server, std::string& error);
  bool LoadTrust(const SecurityMap& conf, std::string& error);
  bool LoadRevocations(const std::string& path, std::string& error);
  bool LoadIdentity(const SecurityMap& conf, std::string& error);

  const openssl_dl::Api* const mApi;
  const bool mServer;
  ssl_ctx_st* mContext = nullptr;
  ssl_session_st* mSession = nullptr;
  std::string mPeerName;
};

/// Returns: what OpenSSL's oldest recorded error of this thread says.
std::string TlsErrorText(const openssl_dl::Api* api);

}  // namespace vyn::tls
