// A synchronous call over TLS 1.3; the floor exchanges the same bytes over blocking OpenSSL. And a new
// connection with one call, plain and over TLS with session resumption; the floor does the same over blocking
// sockets.

#include "platform/openssl_dl/openssl_dl.h"
#include "support/latency.h"
#include "support/net/certificates.h"
#include "support/rpc_bench.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>

namespace {

using namespace vyn::bench;

constexpr std::size_t kSmall = 200;

/// A blocking server for one connection at a time, with TLS unless `identity` is null. It replies to every
/// `request` bytes with `reply` bytes.
class BareServer {
 public:
  BareServer(std::size_t request, std::size_t reply, SSL_CTX* identity)
      : mRequest(request), mReply(reply), mIdentity(identity) {
    mListener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    if (bind(mListener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(mListener, 16) != 0 ||
        getsockname(mListener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      Die("no listener");
    }
    mAddress = address;
    mThread = std::thread([this] { Run(); });
  }
  ~BareServer() {
    shutdown(mListener, SHUT_RDWR);
    mThread.join();
    close(mListener);
  }
  BareServer(const BareServer&) = delete;
  BareServer& operator=(const BareServer&) = delete;

  const sockaddr_in& Address() const { return mAddress; }

 private:
  void Run() {
    std::vector<char> in(mRequest);
    const std::vector<char> out(mReply, 'y');
    for (int peer; (peer = accept(mListener, nullptr, nullptr)) >= 0; close(peer)) {
      const int on = 1;
      setsockopt(peer, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
      if (mIdentity == nullptr) {
        while (ReceiveAll(peer, in.data(), in.size()) && SendAll(peer, out.data(), out.size())) {
        }
        continue;
      }
      SSL* ssl = SSL_new(mIdentity);
      SSL_set_fd(ssl, peer);
      bool good = SSL_accept(ssl) == 1;
      while (good) {
        for (std::size_t done = 0; good && done < in.size();) {
          const int count = SSL_read(ssl, in.data() + done, static_cast<int>(in.size() - done));
          good = count > 0;
          done += good ? static_cast<std::size_t>(count) : 0;
        }
        good = good && SSL_write(ssl, out.data(), static_cast<int>(out.size())) > 0;
      }
      SSL_free(ssl);
    }
  }

  const std::size_t mRequest;
  const std::size_t mReply;
  SSL_CTX* const mIdentity;
  int mListener = -1;
  sockaddr_in mAddress{};
  std::thread mThread;
};

/// A client of BareServer. It keeps the TLS session and resumes it in the next connection.
class BareClient {
 public:
  BareClient(const BareServer& server, std::size_t request, std::size_t reply, SSL_CTX* trust)
      : mAddress(server.Address()), mRequest(request, 'x'), mReply(reply), mTrust(trust) {}
  ~BareClient() {
    Disconnect();
    SSL_SESSION_free(mSession);
  }
  BareClient(const BareClient&) = delete;
  BareClient& operator=(const BareClient&) = delete;

  void Connect() {
    Disconnect();
    mSocket = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(mSocket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    if (connect(mSocket, reinterpret_cast<const sockaddr*>(&mAddress), sizeof(mAddress)) != 0) {
      Die("cannot connect");
    }
    if (mTrust != nullptr) {
      mSsl = SSL_new(mTrust);
      SSL_set_fd(mSsl, mSocket);
      if (mSession != nullptr) {
        SSL_set_session(mSsl, mSession);
      }
      if (SSL_connect(mSsl) != 1) {
        Die("no TLS handshake");
      }
    }
  }
  void Call() {
    bool good = true;
    if (mSsl == nullptr) {
      good = SendAll(mSocket, mRequest.data(), mRequest.size()) &&
             ReceiveAll(mSocket, mReply.data(), mReply.size());
    } else {
      good = SSL_write(mSsl, mRequest.data(), static_cast<int>(mRequest.size())) > 0;
      for (std::size_t done = 0; good && done < mReply.size();) {
        const int count = SSL_read(mSsl, mReply.data() + done, static_cast<int>(mReply.size() - done));
        good = count > 0;
        done += good ? static_cast<std::size_t>(count) : 0;
      }
    }
    if (!good) {
      Die("the bare connection broke");
    }
  }
  void Disconnect() {
    if (mSsl != nullptr) {
      SSL_SESSION_free(mSession);
      mSession = SSL_get1_session(mSsl);
      SSL_shutdown(mSsl);
      SSL_free(mSsl);
      mSsl = nullptr;
    }
    if (mSocket >= 0) {
      close(mSocket);
      mSocket = -1;
    }
  }

 private:
  const sockaddr_in mAddress;
  const std::vector<char> mRequest;
  std::vector<char> mReply;
  SSL_CTX* const mTrust;
  SSL_SESSION* mSession = nullptr;
  SSL* mSsl = nullptr;
  int mSocket = -1;
};

using ContextPtr = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

ContextPtr NewContext(const SSL_METHOD* method) {
  ContextPtr context(SSL_CTX_new(method), &SSL_CTX_free);
  SSL_CTX_set_min_proto_version(context.get(), TLS1_3_VERSION);
  return context;
}

}  // namespace

int main() {
  RunOn(Processors().front());
  if (SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3") != OPENSSL_DL_OK) {
    Die(OpensslDLGetLastMessage());
  }
  const vyn::test::Certificates files;
  const std::map<std::string, const std::string> trust{{"tls.ca.cert.path", files / "ca.pem"}};
  vyn::rpc::ServerOptions options;
  options.mTls = true;
  options.mSecurity = {{"tls.cert.path", files / "server.pem"}, {"tls.key.path", files / "server.key"}};
  EchoServer server(options);
  EchoServer plainServer;

  const ContextPtr identity = NewContext(TLS_server_method());
  const ContextPtr authority = NewContext(TLS_client_method());
  if (SSL_CTX_use_certificate_chain_file(identity.get(), (files / "server.pem").c_str()) != 1 ||
      SSL_CTX_use_PrivateKey_file(identity.get(), (files / "server.key").c_str(), SSL_FILETYPE_PEM) != 1 ||
      SSL_CTX_load_verify_file(authority.get(), (files / "ca.pem").c_str()) != 1) {
    Die("no certificates");
  }
  SSL_CTX_set_verify(authority.get(), SSL_VERIFY_PEER, nullptr);
  SSL_CTX_set_num_tickets(identity.get(), 1);

  std::printf("\none processor:");
  PrintLatencyHeader();
  const struct {
    const char* name;
    std::size_t bytes;
    int calls;
  } sizes[] = {{"200 B", kSmall, 400}, {"64 KiB", std::size_t{64} << 10, 100}};
  for (const auto& size : sizes) {
    Caller caller(server.Port(), size.bytes, true, trust);
    const BareServer bareServer(size.bytes + kRequestOverhead, size.bytes + kReplyOverhead, identity.get());
    BareClient bare(bareServer, size.bytes + kRequestOverhead, size.bytes + kReplyOverhead, authority.get());
    bare.Connect();
    Latency times(std::string("SyncRpcCall over TLS ") + size.name);
    Latency floor(std::string("OpenSSL ping-pong ") + size.name);
    for (int turn = 0; turn < 50; ++turn) {
      times.Run(size.calls, [&] { caller.Call(kEchoQuick); });
      floor.Run(size.calls, [&] { bare.Call(); });
    }
    PrintRatio(times, floor, 1.3);
  }
  for (const bool tls : {false, true}) {
    Caller caller(tls ? server.Port() : plainServer.Port(), kSmall, tls, tls ? trust : decltype(trust){});
    const BareServer bareServer(kSmall + kRequestOverhead, kSmall + kReplyOverhead,
                                tls ? identity.get() : nullptr);
    BareClient bare(bareServer, kSmall + kRequestOverhead, kSmall + kReplyOverhead,
                    tls ? authority.get() : nullptr);
    Latency times(tls ? "reconnect and call, TLS" : "reconnect and call");
    Latency floor(tls ? "connect, resume, ping-pong" : "connect, ping-pong");
    for (int turn = 0; turn < 30; ++turn) {
      times.Run(20, [&] {
        if (vyn::Failed(caller.Engine()->Reconnect(60000))) {
          Die("cannot reconnect");
        }
        caller.Call(kEchoQuick);
      });
      floor.Run(20, [&] {
        bare.Connect();
        bare.Call();
      });
    }
    PrintRatio(times, floor, 0);
  }
  return 0;
}
