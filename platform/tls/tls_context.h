#pragma once

// What the streams of one side share: the certificate authorities of a client, or certificate and key of a
// server. TLS 1.3 only, through the libraries that platform/openssl_dl has opened.
//
// Several threads may use a context at once, each with streams of its own. A client's context also keeps the
// session of the stream that was closed last (Stream::Close), so that the next handshake needs no
// certificates. So Stream::Close of a client must not run while another thread opens or closes a stream of
// the same context.

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
  /// The settings by name; the start-up of the process makes them from the configuration.
  using SecurityMap = std::map<std::string, const std::string>;

  /// Reads "tls.ca.cert.path" and, if present, "tls.crl.path" and "tls.peer.name", the name or address that
  /// the peer's certificate must have. Returns: the context, or null with the reason in `error`.
  static std::shared_ptr<TlsContext> ForClient(const SecurityMap& conf, std::string& error);
  /// Reads "tls.cert.path", "tls.key.path", "tls.key.encrypted" ("true" or not) and "tls.key.pass.path".
  /// Returns: the context, or null with the reason in `error`.
  static std::shared_ptr<TlsContext> ForServer(const SecurityMap& conf, std::string& error);

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  /// Returns: a stream over a connected socket; null without memory.
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

/// Returns: the text of the oldest error in OpenSSL's error queue of this thread.
std::string TlsErrorText(const openssl_dl::Api* api);

}  // namespace vyn::tls
