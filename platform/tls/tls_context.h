#pragma once

// What the streams of one side share: the certificate authorities of a client, or certificate and key of a
// server. TLS 1.3 only, through the libraries that platform/openssl_dl has opened.
//
// Several threads may use a context at once, each with streams of its own. A client's context also keeps the
// session of the stream that was closed last (Stream::Close), so that the next handshake needs no
// certificates.

#include "platform/net/stream.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

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

  /// Reads the files of every context of the process again, from the same paths. Streams that are open keep
  /// what they have. A context whose files cannot be used keeps what it has. Returns: the reasons.
  static std::vector<std::string> ReloadAll();

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  /// Returns: a stream over a connected socket; null without memory.
  std::unique_ptr<net::Stream> NewStream(int descriptor);

 private:
  friend class TlsStream;

  TlsContext(const openssl_dl::Api* api, bool server, const SecurityMap& conf)
      : mApi(api), mServer(server), mConf(conf) {}
  static std::shared_ptr<TlsContext> New(bool server, const SecurityMap& conf, std::string& error);
  /// New, with the files of `conf`.
  static std::shared_ptr<TlsContext> Make(bool server, const SecurityMap& conf, std::string& error);
  bool Reload(std::string& error);
  bool LoadTrust(const SecurityMap& conf, std::string& error);
  bool LoadRevocations(const std::string& path, std::string& error);
  bool LoadIdentity(const SecurityMap& conf, std::string& error);

  const openssl_dl::Api* const mApi;
  const bool mServer;
  const SecurityMap mConf;
  // Once the context is shared, a thread holds mMutex while it reads or changes the next three.
  sync::Mutex mMutex;
  ssl_ctx_st* mContext = nullptr;
  ssl_session_st* mSession = nullptr;
  std::uint64_t mReloads = 0;
  std::string mPeerName;
};

/// Returns: the text of the oldest error in OpenSSL's error queue of this thread.
std::string TlsErrorText(const openssl_dl::Api* api);

}  // namespace vyn::tls
