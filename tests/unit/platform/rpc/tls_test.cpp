#include "platform/openssl_dl/openssl_dl.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"
#include "support/certificates.h"
#include "support/peers.h"
#include "support/proxy.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::rpc {
namespace {

using test::Certificates;
using test::RawSocket;
using test::WaitUntil;
using testing::HasSubstr;
using SecurityMap = std::map<std::string, const std::string>;

constexpr std::uint32_t kEcho = 1;
constexpr std::int32_t kCallTime = RawSocket::kPatience;

class RpcTls : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1) << OpensslDLGetLastMessage();
    gFiles = new Certificates;
  }
  static void TearDownTestSuite() { delete std::exchange(gFiles, nullptr); }

  static std::string File(const std::string& name) { return *gFiles / name; }
  /// What a client trusts, with one entry changed.
  static SecurityMap Trust(const std::string& key = "", const std::string& value = "") {
    SecurityMap trust{{"tls.ca.cert.path", File("ca.pem")}, {"tls.crl.path", ""}};
    trust.erase(key);
    trust.emplace(key, value);
    return trust;
  }

  std::unique_ptr<Server> NewServer(const SecurityMap& security) {
    ServerOptions options;
    options.mTls = true;
    options.mSecurity = security;
    options.mHandshakeTimeout = 2000;
    options.mReport = [this](const std::string&) { ++mReports; };
    auto server = std::make_unique<Server>(options);
    server->Register(MessageId(kEcho), [](const auto& context, const auto& request) {
      Message reply(request->Id());
      reply.Bl() = std::move(request->Bl());
      Server::Reply(context, &reply, nullptr);
    });
    return server;
  }
  std::uint16_t StartServer(const std::string& identity) {
    mServer = NewServer({{"tls.cert.path", File(identity + ".pem")},
                         {"tls.key.path", File(identity + ".key")},
                         {"tls.key.encrypted", "false"}});
    EXPECT_TRUE(mServer->Start("127.0.0.1", 0)) << Server::mLastErrorMessage;
    return mServer->Port();
  }

  /// Returns: what came back, or the status of the failure.
  static std::string Echo(Client& client, const std::string& text) {
    ClientContext context;
    context.mTimeout = kCallTime;
    Message request{MessageId(kEcho)};
    Message response{MessageId(kEcho)};
    request.Bl().emplace_back(const_cast<char*>(text.data()), text.size(), nullptr);
    if (!client.SyncCall(&context, &request, &response, nullptr)) {
      return std::to_string(context.mStatus);
    }
    const Buffer& reply = response.Bl().at(0);
    return std::string(static_cast<const char*>(reply.Addr()), reply.Len());
  }

  static Certificates* gFiles;
  std::atomic<int> mReports{0};
  std::unique_ptr<Server> mServer;
};
Certificates* RpcTls::gFiles = nullptr;

TEST_F(RpcTls, NothingIsReadableAndASessionIsTakenUpAgain) {
  test::ByteProxy proxy(StartServer("server"));
  SecuredClient client("127.0.0.1", proxy.Port(), {}, true, false);
  ASSERT_TRUE(client.Initialize(Trust(), kCallTime)) << SecuredClient::mLastErrorMessage;
  const std::string secret = "a text that is easy to find";
  EXPECT_EQ(Echo(client, secret), secret);
  const std::size_t first = proxy.ToClient().size();
  proxy.Drop();
  EXPECT_EQ(Echo(client, secret), secret);
  // The second handshake goes without the certificate.
  EXPECT_LT(proxy.ToClient().size() - first + 300, first);
  for (const std::string& bytes : {proxy.ToServer(), proxy.ToClient()}) {
    EXPECT_EQ(bytes[0], '\x16');
    EXPECT_EQ(bytes.find(secret), std::string::npos);
    EXPECT_EQ(bytes.find("VYN"), std::string::npos);
    EXPECT_EQ(bytes.find("vyn-server"), std::string::npos);  // TLS 1.3 hides the certificate too
  }
}

TEST_F(RpcTls, WhoIsTrusted) {
  enum class End { kStands, kRefused, kNotInitialized };
  const struct {
    const char* mServer;
    const char* mKey;
    std::string mValue;
    End mEnd;
    const char* mWords;  // OpenSSL's, or the key that is at fault
  } kCases[] = {
      {"server", "tls.crl.path", File("crl.pem"), End::kStands, ""},
      {"server", "tls.peer.name", "vyn-server", End::kStands, ""},
      {"server", "tls.peer.name", "127.0.0.1", End::kStands, ""},
      {"server", "tls.peer.name", "other-server", End::kRefused, "mismatch"},
      {"server", "tls.peer.name", "127.0.0.2", End::kRefused, "mismatch"},
      {"server", "tls.ca.cert.path", File("other_ca.pem"), End::kRefused, "issuer certificate"},
      {"expired", "tls.crl.path", "", End::kRefused, "expired"},
      {"revoked", "tls.crl.path", "", End::kStands, ""},
      {"revoked", "tls.crl.path", File("crl.pem"), End::kRefused, "revoked"},
      {"server", "tls.ca.cert.path", "", End::kNotInitialized, "tls.ca.cert.path"},
      {"server", "tls.ca.cert.path", "/nowhere/ca.pem", End::kNotInitialized, "tls.ca.cert.path /nowhere"},
      {"server", "tls.crl.path", "/nowhere/crl.pem", End::kNotInitialized, "tls.crl.path /nowhere"},
      {"server", "tls.crl.path", File("ca.pem"), End::kNotInitialized, "list 1 of tls.crl.path"},
      {"server", "tls.crl.path", File("half_crl.pem"), End::kNotInitialized, "list 2 of tls.crl.path"},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(std::string(one.mServer) + " " + one.mKey + " " + one.mValue);
    SecuredClient client("127.0.0.1", StartServer(one.mServer), {}, true, false);
    EXPECT_EQ(client.Initialize(Trust(one.mKey, one.mValue), kCallTime), one.mEnd != End::kNotInitialized);
    EXPECT_EQ(client.Connect(), one.mEnd == End::kStands);
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(one.mWords));
    for (const std::size_t size : {1U, 16384U, 70000U, 5U << 20}) {
      const std::string text(size, 't');
      EXPECT_TRUE(Echo(client, text) == (one.mEnd == End::kStands ? text : "-13"));
    }
  }
}

TEST_F(RpcTls, OneSideOnly) {
  // A plain client at a TLS server, and noise.
  Client plain("127.0.0.1", StartServer("server"), {});
  EXPECT_EQ(Echo(plain, "x")[0], '-');
  EXPECT_TRUE(WaitUntil([&] { return mReports == 1; }));
  RawSocket noise = RawSocket::Connect(mServer->Port());
  noise.Send(std::string(100, '\x16'));
  EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 0; }));
  SecuredClient client("127.0.0.1", mServer->Port(), {}, true, false);
  ASSERT_TRUE(client.Initialize(Trust(), kCallTime));
  EXPECT_EQ(Echo(client, "x"), "x");

  // A TLS client at a plain server, which sees no word in plain text.
  std::string heard[2];
  {
    test::ScriptedServer open(2, [&](RawSocket& socket, int connection) {
      socket.Send(test::WireGreeting());
      heard[connection] = socket.Receive(65536);
    });
    SecuredClient strict("127.0.0.1", open.Port(), {}, true, false);
    ASSERT_TRUE(strict.Initialize(Trust(), kCallTime));
    EXPECT_FALSE(strict.Connect());
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("TLS"));
    EXPECT_EQ(Echo(strict, "secret"), "-13");
  }
  for (const std::string& bytes : heard) {
    EXPECT_EQ(bytes.find("secret"), std::string::npos);
    EXPECT_EQ(bytes.at(0), '\x16');
  }
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

TEST_F(RpcTls, IdentitiesOfAServer) {
  const struct {
    std::string mKey;
    const char* mEncrypted;
    std::string mPassword;
    const char* mWords;  // null: starts
  } kCases[] = {{File("encrypted.key"), "true", File("password.txt"), nullptr},
                {File("encrypted.key"), "true", File("names.cnf"), "private key"},
                {File("encrypted.key"), "true", "/nowhere", "tls.key.pass.path /nowhere"},
                {File("encrypted.key"), "false", "", "private key"},
                {File("expired.key"), "false", "", "private key"},
                {"", "", "", "tls.cert.path"}};
  for (const auto& one : kCases) {
    const auto server = NewServer({{"tls.cert.path", one.mKey.empty() ? "" : File("server.pem")},
                                   {"tls.key.path", one.mKey},
                                   {"tls.key.encrypted", one.mEncrypted},
                                   {"tls.key.pass.path", one.mPassword}});
    EXPECT_EQ(server->Start("127.0.0.1", 0), one.mWords == nullptr) << Server::mLastErrorMessage;
    EXPECT_THAT(Server::mLastErrorMessage, HasSubstr(one.mWords == nullptr ? "" : one.mWords));
  }
}

}  // namespace
}  // namespace vyn::rpc
