#include "platform/openssl_dl/openssl_dl.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"
#include "support/certificates.h"
#include "support/raw_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <thread>

namespace vyn::rpc {
namespace {

using test::Certificates;
using test::Eventually;
using test::RawListener;
using test::RawSocket;
using test::WireGreeting;
using testing::HasSubstr;
using SecurityMap = std::map<std::string, const std::string>;

constexpr std::uint32_t kEcho = 1;
constexpr std::int32_t kCallTime = RawSocket::kPatience;

/// Passes bytes on between one client at a time and a server, and keeps what it saw.
class Tap {
 public:
  explicit Tap(std::uint16_t server) : mServer(server), mThread([this] { Run(); }) {}
  ~Tap() {
    mEnd = true;
    mThread.join();
  }
  std::uint16_t Port() const { return mListener.Port(); }
  std::string ToServer() const { return Kept(mToServer); }
  std::string ToClient() const { return Kept(mToClient); }
  /// Ends the present connection in both directions.
  void Cut() { mCut = true; }
  bool IsIdle() const { return !mBusy; }

 private:
  std::string Kept(const std::string& bytes) const {
    std::lock_guard lock(mMutex);
    return bytes;
  }
  void Run() {
    while (!mEnd) {
      if (!mListener.HasCaller(5)) {
        continue;
      }
      mBusy = true;
      mCut = false;
      {
        RawSocket client = mListener.Accept();
        RawSocket server = RawSocket::Connect(mServer);
        while (!mEnd && !mCut && Pass(client, server, mToServer) && Pass(server, client, mToClient)) {
        }
      }
      mBusy = false;
    }
  }
  bool Pass(RawSocket& from, RawSocket& to, std::string& kept) {
    if (!from.Readable(1)) {
      return true;
    }
    char bytes[65536];
    const ssize_t count = ::recv(from.Descriptor(), bytes, sizeof(bytes), 0);
    if (count <= 0) {
      return false;
    }
    const std::string text(bytes, static_cast<std::size_t>(count));
    {
      std::lock_guard lock(mMutex);
      kept += text;
    }
    return to.Send(text);
  }

  RawListener mListener;
  const std::uint16_t mServer;
  mutable std::mutex mMutex;  // guards the two texts
  std::string mToServer;
  std::string mToClient;
  std::atomic<bool> mEnd{false};
  std::atomic<bool> mCut{false};
  std::atomic<bool> mBusy{false};
  std::thread mThread;
};

class RpcTls : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1) << OpensslDLGetLastMessage();
    gFiles = new Certificates;
  }
  static void TearDownTestSuite() { delete std::exchange(gFiles, nullptr); }

  static std::string File(const std::string& name) { return *gFiles / name; }
  static SecurityMap Identity(const std::string& name) {
    return {{"tls.cert.path", File(name + ".pem")},
            {"tls.key.path", File(name + ".key")},
            {"tls.key.encrypted", "false"}};
  }
  static SecurityMap Trust() { return {{"tls.ca.cert.path", File("ca.pem")}, {"tls.crl.path", ""}}; }

  std::unique_ptr<Server> NewServer(const SecurityMap& security, bool tls = true) {
    ServerOptions options;
    options.mTls = tls;
    options.mSecurity = security;
    options.mHandshakeTimeout = 2000;
    options.mReport = [this](const std::string& line) {
      std::lock_guard lock(mMutex);
      mReports += line + "\n";
    };
    auto server = std::make_unique<Server>(options);
    server->Register(MessageId(kEcho), [](const auto& context, const auto& request) {
      Message reply(request->Id());
      reply.Bl() = std::move(request->Bl());
      Server::Reply(context, &reply, nullptr);
    });
    return server;
  }
  std::uint16_t StartServer(const std::string& identity) {
    mServer = NewServer(Identity(identity));
    EXPECT_TRUE(mServer->Start("127.0.0.1", 0)) << Server::mLastErrorMessage;
    return mServer->Port();
  }
  std::string Reports() {
    std::lock_guard lock(mMutex);
    return mReports;
  }

  /// Returns: what came back, or the status of the failure.
  static std::string Echo(Client& client, const std::string& text) {
    ClientContext context;
    context.mTimeout = kCallTime;
    Message request{MessageId(kEcho)};
    Message response{MessageId(kEcho)};
    request.Bl().emplace_back(const_cast<char*>(text.data()), text.size(), nullptr);
    if (!client.SyncCall(&context, &request, &response, nullptr)) {
      return "status " + std::to_string(context.mStatus);
    }
    const Buffer& reply = response.Bl().at(0);
    return std::string(static_cast<const char*>(reply.Addr()), reply.Len());
  }

  static Certificates* gFiles;
  std::mutex mMutex;  // guards mReports
  std::string mReports;
  std::unique_ptr<Server> mServer;
};
Certificates* RpcTls::gFiles = nullptr;

TEST_F(RpcTls, NothingIsReadableAndASessionIsTakenUpAgain) {
  Tap tap(StartServer("server"));
  SecuredClient client("127.0.0.1", tap.Port(), {}, true, false);
  ASSERT_TRUE(client.Initialize(Trust(), kCallTime)) << SecuredClient::mLastErrorMessage;
  const std::string secret = "a text that is easy to find";
  ASSERT_EQ(Echo(client, secret), secret) << SecuredClient::mLastErrorMessage;
  const std::size_t first = tap.ToClient().size();
  tap.Cut();
  ASSERT_TRUE(Eventually([&] { return tap.IsIdle(); }));
  ASSERT_EQ(Echo(client, secret), secret) << SecuredClient::mLastErrorMessage;
  // The second handshake goes without the certificate.
  const std::size_t second = tap.ToClient().size() - first;
  EXPECT_LT(second + 300, first);
  for (const std::string& bytes : {tap.ToServer(), tap.ToClient()}) {
    EXPECT_EQ(bytes.find(secret), std::string::npos);
    EXPECT_EQ(bytes.find("VYN"), std::string::npos);
    EXPECT_EQ(bytes.find("vyn-server"), std::string::npos);  // TLS 1.3 hides the certificate too
  }
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{16384}, std::size_t{70000}, std::size_t{5} << 20}) {
    const std::string text(size, static_cast<char>('a' + size % 26));
    EXPECT_EQ(Echo(client, text), text);
  }
}

TEST_F(RpcTls, WhoIsTrusted) {
  const struct {
    const char* mServer;
    const char* mKey;
    std::string mValue;
    const char* mWords;  // null: the connection stands
  } kCases[] = {
      {"server", "tls.crl.path", File("crl.pem"), nullptr},
      {"server", "tls.peer.name", "vyn-server", nullptr},
      {"server", "tls.peer.name", "127.0.0.1", nullptr},
      {"server", "tls.peer.name", "other-server", "hostname mismatch"},
      {"server", "tls.peer.name", "127.0.0.2", "IP address mismatch"},
      {"server", "tls.ca.cert.path", File("other_ca.pem"), "unable to get local issuer certificate"},
      {"expired", "tls.crl.path", "", "certificate has expired"},
      {"revoked", "tls.crl.path", "", nullptr},
      {"revoked", "tls.crl.path", File("crl.pem"), "certificate revoked"},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(std::string(one.mServer) + " " + one.mKey + " " + one.mValue);
    SecuredClient client("127.0.0.1", StartServer(one.mServer), {}, true, false);
    SecurityMap security = Trust();
    security.erase(one.mKey);
    security.emplace(one.mKey, one.mValue);
    ASSERT_TRUE(client.Initialize(security, kCallTime)) << SecuredClient::mLastErrorMessage;
    if (one.mWords == nullptr) {
      EXPECT_TRUE(client.Connect()) << SecuredClient::mLastErrorMessage;
      EXPECT_EQ(Echo(client, "x"), "x");
    } else {
      EXPECT_FALSE(client.Connect());
      EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(one.mWords));
      EXPECT_EQ(Echo(client, "x"), "status -13");
    }
  }
}

TEST_F(RpcTls, OneSideOnly) {
  // A plain client at a TLS server.
  Client plain("127.0.0.1", StartServer("server"), {});
  EXPECT_EQ(Echo(plain, "x").substr(0, 7), "status ");
  EXPECT_TRUE(Eventually([&] { return Reports().find("TLS handshake: ") != std::string::npos; }))
      << Reports();
  // The server is not disturbed, nor by noise.
  RawSocket noise = RawSocket::Connect(mServer->Port());
  noise.Send(std::string(100, '\x16'));
  EXPECT_TRUE(Eventually([&] { return mServer->Connections() == 0; }));
  SecuredClient client("127.0.0.1", mServer->Port(), {}, true, false);
  ASSERT_TRUE(client.Initialize(Trust(), kCallTime));
  EXPECT_EQ(Echo(client, "x"), "x");

  // A TLS client at a plain server: the server sees no word in plain text.
  const auto open = NewServer({}, false);
  ASSERT_TRUE(open->Start("127.0.0.1", 0));
  Tap tap(open->Port());
  SecuredClient strict("127.0.0.1", tap.Port(), {}, true, false);
  ASSERT_TRUE(strict.Initialize(Trust(), kCallTime));
  EXPECT_FALSE(strict.Connect());
  EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("does the peer speak TLS?"));
  EXPECT_EQ(Echo(strict, "secret"), "status -13");
  EXPECT_EQ(tap.ToServer().find("secret"), std::string::npos);
  EXPECT_EQ(tap.ToServer().at(0), '\x16');
}

TEST_F(RpcTls, OnlyTls13) {
  const std::string peer = "127.0.0.1:" + std::to_string(StartServer("server"));
  const auto connect = [&](const std::string& version) {
    return test::RunCommand("openssl s_client -brief " + version + " -CAfile " + File("ca.pem") +
                            " -connect " + peer + " </dev/null");
  };
  EXPECT_THAT(connect("-tls1_3").output, HasSubstr("Verification: OK"));
  EXPECT_NE(connect("-tls1_2").status, 0);
}

TEST_F(RpcTls, SettingsThatAreRefused) {
  const struct {
    const char* mKey;
    std::string mValue;
    const char* mWords;
  } kClients[] = {
      {"tls.ca.cert.path", "", "tls.ca.cert.path is empty"},
      {"tls.ca.cert.path", "/nowhere/ca.pem", "tls.ca.cert.path /nowhere/ca.pem"},
      {"tls.crl.path", "/nowhere/crl.pem", "tls.crl.path /nowhere/crl.pem"},
      {"tls.crl.path", File("ca.pem"), "revocation list 1 of tls.crl.path"},
      {"tls.crl.path", File("half_crl.pem"), "revocation list 2 of tls.crl.path"},
  };
  for (const auto& one : kClients) {
    SecuredClient client("127.0.0.1", StartServer("server"), {}, true, false);
    SecurityMap security = Trust();
    security.erase(one.mKey);
    security.emplace(one.mKey, one.mValue);
    EXPECT_FALSE(client.Initialize(security, kCallTime));
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(one.mWords));
    EXPECT_FALSE(client.Connect());
    EXPECT_EQ(Echo(client, "x"), "status -13");
  }

  const struct {
    SecurityMap mSecurity;
    const char* mWords;  // null: starts
  } kServers[] = {
      {{{"tls.cert.path", File("server.pem")},
        {"tls.key.path", File("encrypted.key")},
        {"tls.key.encrypted", "true"},
        {"tls.key.pass.path", File("password.txt")}},
       nullptr},
      {{{"tls.cert.path", File("server.pem")},
        {"tls.key.path", File("encrypted.key")},
        {"tls.key.encrypted", "true"},
        {"tls.key.pass.path", File("names.cnf")}},
       "cannot use the private key"},
      {{{"tls.cert.path", File("server.pem")},
        {"tls.key.path", File("encrypted.key")},
        {"tls.key.encrypted", "true"},
        {"tls.key.pass.path", "/nowhere"}},
       "tls.key.pass.path /nowhere"},
      {{{"tls.cert.path", File("server.pem")},
        {"tls.key.path", File("encrypted.key")},
        {"tls.key.encrypted", "false"}},
       "cannot use the private key"},
      {{{"tls.cert.path", File("server.pem")}, {"tls.key.path", File("expired.key")}}, "private key"},
      {{}, "tls.cert.path"},
  };
  for (const auto& one : kServers) {
    const auto server = NewServer(one.mSecurity);
    EXPECT_EQ(server->Start("127.0.0.1", 0), one.mWords == nullptr) << Server::mLastErrorMessage;
    if (one.mWords != nullptr) {
      EXPECT_THAT(Server::mLastErrorMessage, HasSubstr(one.mWords));
    }
  }
}

}  // namespace
}  // namespace vyn::rpc
