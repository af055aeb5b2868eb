#pragma once

// What TLS needs to know before a connection: the trust of a client, or the identity of a server. TLS 1.3
// only, through the libraries that platform/openssl_dl has opened.
//
// A client's context also keeps the session of its last connection, by which the next one is made without
// certificates; it belongs to one thread at a time. A server's may be used by several threads.

#include "platform/rpc/outcome.h"
#include "platform/rpc/stream.h"

#include <map>
#include <memory>
#include <string>

struct ssl_ctx_st;
struct ssl_session_st;

namespace vyn::openssl_dl {
struct Api;
}  // namespace vyn::openssl_dl

namespace vyn::rpc {

class TlsContext : public std::enable_shared_from_this<TlsContext> {
 public:
  using SecurityMap = std::map<std::string, const std::string>;

  /// The entries are told at SecuredClient::Initialize. Returns: kTlsError with the words, or kOk and
  /// `context`.
  static Outcome ForClient(const SecurityMap& conf, std::shared_ptr<TlsContext>& context);
  /// The entries are told at ServerOptions.
  static Outcome ForServer(const SecurityMap& conf, std::shared_ptr<TlsContext>& context);

  ~TlsContext();
  TlsContext(const TlsContext&) = delete;
  TlsContext& operator=(const TlsContext&) = delete;

  /// A stream of this side over a connected socket. Null without memory.
  std::unique_ptr<Stream> NewStream(int descriptor);

 private:
  friend class TlsStream;

  TlsContext(const openssl_dl::Api* api, bool server) : mApi(api), mServer(server) {}
  static Outcome New(bool server, std::shared_ptr<TlsContext>& context);
  Outcome LoadTrust(const SecurityMap& conf);
  Outcome LoadRevocations(const std::string& path);
  Outcome LoadIdentity(const SecurityMap& conf);

  const openssl_dl::Api* const mApi;
  const bool mServer;
  ssl_ctx_st* mContext = nullptr;
  ssl_session_st* mSession = nullptr;
  std::string mPeerName;
};

/// Returns: what OpenSSL's oldest recorded error of this thread says.
std::string TlsErrorText(const openssl_dl::Api* api);

}  // namespace vyn::rpc
