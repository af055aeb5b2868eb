#include "platform/tls/tls_context.h"
#include "support/net/certificates.h"
#include "support/net/peers.h"
#include "support/net/proxy.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::rpc {
namespace {

using test::Call;
using test::RawSocket;
using testing::HasSubstr;
using SecurityMap = std::map<std::string, const std::string>;

class RpcTls : public testing::Test {
 protected:
  bool Start(const SecurityMap& identity) {
    ServerOptions options;
    options.mTls = true;
    options.mSecurity = identity;
    options.mHandshakeTimeout = 2000;
    mServer = std::make_unique<Server>(options);
    mServer->Register(MessageId(test::kCallId), test::Echo);
    return mServer->Start("127.0.0.1", 0);
  }
  std::uint16_t StartAs(const std::string& identity) {
    EXPECT_TRUE(Start(
        {{"tls.cert.path", mFiles / (identity + ".pem")}, {"tls.key.path", mFiles / (identity + ".key")}}));
    return mServer->Port();
  }

  const test::Certificates mFiles;
  const SecurityMap mTrust{{"tls.ca.cert.path", mFiles / "ca.pem"}};
  std::unique_ptr<Server> mServer;
};

TEST_F(RpcTls, BytesAreEncryptedAndAReconnectResumesTheSession) {
  test::ByteProxy proxy(StartAs("server"));
  SecuredClient client("127.0.0.1", proxy.Port(), {}, true, false);
  ASSERT_TRUE(client.Initialize(mTrust, RawSocket::kPatience)) << SecuredClient::mLastErrorMessage;
  const std::string secret = "a text that is easy to find";
  EXPECT_EQ(Call(client, secret), secret);
  const std::size_t first = proxy.ToClient().size();
  proxy.Drop();
  EXPECT_EQ(Call(client, secret), secret);
  // The second handshake goes without the certificate.
  EXPECT_LT(proxy.ToClient().size() - first + 300, first);
  for (const std::string& word : {secret, std::string("VYN"), std::string("vyn-server")}) {
    EXPECT_EQ((proxy.ToServer() + proxy.ToClient()).find(word), std::string::npos);
  }
}

TEST_F(RpcTls, TheClientConnectsToTrustedServersOnly) {
  enum End { kStands, kRefused, kNotInitialized };
  const struct {
    const char* mServer;
    const char* mKey;
    std::string mValue;
    End mEnd;
  } kCases[] = {{"server", "tls.crl.path", mFiles / "crl.pem", kStands},
                {"server", "tls.peer.name", "vyn-server", kStands},
                {"server", "tls.peer.name", "127.0.0.1", kStands},
                {"server", "tls.peer.name", "other-server", kRefused},
                {"server", "tls.peer.name", "127.0.0.2", kRefused},
                {"server", "tls.ca.cert.path", mFiles / "other_ca.pem", kRefused},
                {"expired", "tls.crl.path", "", kRefused},
                {"revoked", "tls.crl.path", "", kStands},
                {"revoked", "tls.crl.path", mFiles / "crl.pem", kRefused},
                {"server", "tls.ca.cert.path", "", kNotInitialized},
                {"server", "tls.ca.cert.path", "/nowhere", kNotInitialized},
                {"server", "tls.crl.path", "/nowhere", kNotInitialized},
                {"server", "tls.crl.path", mFiles / "half_crl.pem", kNotInitialized}};
  for (const auto& one : kCases) {
    SCOPED_TRACE(std::string(one.mServer) + " " + one.mKey + " " + one.mValue);
    SecurityMap trust = mTrust;
    trust.erase(one.mKey);
    trust.emplace(one.mKey, one.mValue);
    SecuredClient client("127.0.0.1", StartAs(one.mServer), {}, true, false);
    EXPECT_EQ(client.Initialize(trust, RawSocket::kPatience), one.mEnd != kNotInitialized);
    EXPECT_EQ(client.Connect(), one.mEnd == kStands);
    for (const std::size_t size : {1U, 16384U, 5U << 20}) {
      const std::string text(size, 't');
      EXPECT_TRUE(Call(client, text) == (one.mEnd == kStands ? text : "-13"));
    }
  }
}

TEST_F(RpcTls, ReloadAllReadsTheCertificatesAgain) {
  const auto put = [&](const std::string& from) {
    std::filesystem::copy_file(mFiles / from, mFiles / "used.pem",
                               std::filesystem::copy_options::overwrite_existing);
  };
  std::filesystem::copy_file(mFiles / "revoked.key", mFiles / "used.key");
  put("revoked.pem");
  const std::uint16_t port = StartAs("used");
  const SecurityMap trust{{"tls.ca.cert.path", mFiles / "ca.pem"}, {"tls.crl.path", mFiles / "crl.pem"}};
  const auto accepted = [&] {
    SecuredClient client("127.0.0.1", port, {}, true, false);
    return client.Initialize(trust, RawSocket::kPatience) && client.Connect();
  };
  SecuredClient open("127.0.0.1", port, {}, true, false);
  ASSERT_TRUE(open.Initialize(mTrust, RawSocket::kPatience) && open.Connect());
  EXPECT_FALSE(accepted());
  put("server.pem");  // not the certificate of this key: the one of before stays
  EXPECT_EQ(tls::TlsContext::ReloadAll().size(), 1U);
  EXPECT_FALSE(accepted());
  std::filesystem::copy_file(mFiles / "server.key", mFiles / "used.key",
                             std::filesystem::copy_options::overwrite_existing);
  EXPECT_THAT(tls::TlsContext::ReloadAll(), testing::IsEmpty());
  EXPECT_TRUE(accepted());
  EXPECT_EQ(Call(open, "still open"), "still open");
}

TEST_F(RpcTls, APlainPeerAndATlsPeerDoNotConnect) {
  // A plain client at a TLS server, and noise.
  Client plain("127.0.0.1", StartAs("server"), {});
  EXPECT_EQ(Call(plain, "x")[0], '-');
  RawSocket noise = RawSocket::Connect(mServer->Port());
  noise.Send(std::string(100, '\x16'));
  EXPECT_TRUE(test::WaitUntil([&] { return mServer->Connections() == 0; }));

  // A TLS client at a plain server, which sees no word in plain text.
  std::string heard;
  {
    test::ScriptedServer open(1, [&](RawSocket& socket, int) {
      socket.Send(test::WireGreeting());
      heard = socket.Receive(65536);
    });
    SecuredClient strict("127.0.0.1", open.Port(), {}, true, false);
    ASSERT_TRUE(strict.Initialize(mTrust, RawSocket::kPatience));
    EXPECT_EQ(Call(strict, "secret"), "-13");
  }
  EXPECT_EQ(heard.at(0), '\x16');
  EXPECT_EQ(heard.find("secret"), std::string::npos);
}

TEST_F(RpcTls, TheServerAcceptsTls13Only) {
  const std::string peer = "127.0.0.1:" + std::to_string(StartAs("server"));
  const auto connect = [&](const std::string& version) {
    return test::RunCommand("openssl s_client -brief " + version + " -CAfile " + mFiles / "ca.pem" +
                            " -connect " + peer + " </dev/null");
  };
  EXPECT_THAT(connect("-tls1_3").output, HasSubstr("Verification: OK"));
  EXPECT_NE(connect("-tls1_2").status, 0);
}

TEST_F(RpcTls, TheServerStartsWithAMatchingKeyAndPasswordOnly) {
  for (const auto& [key, encrypted, password, starts] :
       {std::tuple{"encrypted.key", "true", "password.txt", true},
        {"encrypted.key", "true", "names.cnf", false},
        {"encrypted.key", "true", "no file", false},
        {"encrypted.key", "false", "", false},
        {"expired.key", "false", "", false}}) {
    EXPECT_EQ(Start({{"tls.cert.path", mFiles / "server.pem"},
                     {"tls.key.path", mFiles / key},
                     {"tls.key.encrypted", encrypted},
                     {"tls.key.pass.path", mFiles / password}}),
              starts);
  }
  EXPECT_FALSE(Start({}));
}

}  // namespace
}  // namespace vyn::rpc
