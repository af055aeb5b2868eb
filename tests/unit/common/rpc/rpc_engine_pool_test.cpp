#include "common/rpc/rpc_engine_pool.h"

#include "common/rpc/rpc_engine_base.h"
#include "common/util/system.h"
#include "support/bytes_message.h"
#include "support/captured_log.h"
#include "support/raw_socket.h"
#include "support/temp_dir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace vyn::common {
namespace {

using test::BytesMessage;
using test::CapturedLog;
using test::Eventually;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kError = 4;
constexpr unsigned short kName = 1;    // answers with the server's name
constexpr unsigned short kMeet = 2;    // answers when two such calls are there
constexpr unsigned short kRefuse = 3;  // answers with an odd word

/// A server that says its name.
class NamedServer {
 public:
  explicit NamedServer(const std::string& name) {
    mServer.Register(rpc::MessageId(kName), [name](const auto& context, const auto&) {
      RpcEngine::SyncRpcReply(kName, context, 0, Ref<BaseMessage>(new BytesMessage(name)), 0);
    });
    mServer.Register(rpc::MessageId(kMeet), [this](const auto& context, const auto&) {
      std::unique_lock lock(mMutex);
      ++mMet;
      mMeeting.notify_all();
      mMeeting.wait(lock, [this] { return mMet >= 2; });
      RpcEngine::SyncRpcReply(kMeet, context, 0, nullptr, 0, 0);
    });
    mServer.Register(rpc::MessageId(kRefuse), [](const auto& context, const auto&) {
      RpcEngine::SyncRpcReply(kRefuse, context, 2100041, nullptr, 0, 0);
    });
    EXPECT_TRUE(mServer.Start("127.0.0.1", 0));
  }
  std::uint16_t Port() const { return mServer.Port(); }
  std::size_t Connections() const { return mServer.Connections(); }

 private:
  std::mutex mMutex;  // guards mMet
  std::condition_variable mMeeting;
  int mMet = 0;
  rpc::Server mServer;  // ends first, while handlers may still wait
};

class Pool : public RPCEnginePool {
 public:
  Pool(std::uint16_t port, std::uint16_t size)
      : RPCEnginePool("127.0.0.1", port, 20000, true, size, 5, {}, false, false) {}

  unsigned int NewRPCEngine(Ref<RpcEngine>& engine) override {
    EXPECT_TRUE(mMutex.try_lock());  // never called with it held
    mMutex.unlock();
    ++mMade;
    return ConnectEngine(engine, {}, mTimeout);
  }
  unsigned int SetTimeout() override { return mSetTimeoutResult; }
  unsigned int Fill() { return FillPool(); }
  std::size_t Idle() {
    std::lock_guard lock(mMutex);
    return mEngines.size();
  }
  void Move(std::uint16_t port) {
    std::lock_guard lock(mMutex);
    mPort = port;
  }

  std::atomic<int> mMade{0};
  unsigned int mSetTimeoutResult = 0;
};

class Client : public RPCEngineBase {
 public:
  Client(std::uint16_t port, std::uint16_t size) : mPool(new Pool(port, size)) { mEnginePool = mPool.Get(); }
  std::string AskName() {
    Ref<BytesMessage> response(new BytesMessage);
    const Ref<BaseMessage> request(new BytesMessage("who"));
    return Failed(SendCall(kName, request, Ref<BaseMessage>(response), 0)) ? "failed" : response->mText;
  }
  unsigned int Call(unsigned short opcode, long timeout = 0) {
    return SendCall(opcode, Ref<BaseMessage>(new BytesMessage("x")), BaseMessage::gNullPtr, timeout);
  }
  Ref<Pool> mPool;
};

TEST(RpcEnginePool, FillMakesOneEngineWhateverTheSize) {
  NamedServer server("a");
  for (const std::uint16_t size : {0, 1, 4}) {
    const Ref<Pool> pool(new Pool(server.Port(), size));
    EXPECT_EQ(pool->Fill(), 0U);
    EXPECT_EQ(pool->Idle(), size == 0 ? 0U : 1U);
    EXPECT_EQ(pool->mMade, size == 0 ? 0 : 1);
  }
}

TEST(RpcEnginePool, TwoThreadsOnAPoolOfOneLeaveTwoEngines) {
  NamedServer server("a");
  Client client(server.Port(), 1);
  ASSERT_EQ(client.mPool->Fill(), 0U);
  std::thread other([&] { EXPECT_EQ(client.Call(kMeet), 0U); });
  EXPECT_EQ(client.Call(kMeet), 0U);
  other.join();
  EXPECT_EQ(client.mPool->Idle(), 2U);
  EXPECT_EQ(server.Connections(), 2U);
  // The one that came back last goes out first, and no third is made.
  Ref<RpcEngine> last;
  ASSERT_EQ(client.mPool->GetRpcEngine(last), 0U);
  client.mPool->ReturnRpcEngine(last);
  Ref<RpcEngine> again;
  ASSERT_EQ(client.mPool->GetRpcEngine(again), 0U);
  EXPECT_TRUE(again == last);
  EXPECT_EQ(client.mPool->mMade, 2);
}

TEST(RpcEnginePool, AMovedPeerIsFollowed) {
  NamedServer oldServer("old");
  NamedServer newServer("new");
  Client client(oldServer.Port(), 1);
  ASSERT_EQ(client.AskName(), "old");
  Ref<RpcEngine> inUse;
  ASSERT_EQ(client.mPool->GetRpcEngine(inUse), 0U);
  ASSERT_EQ(client.AskName(), "old");  // over a second engine
  client.mPool->Move(newServer.Port());
  EXPECT_EQ(client.AskName(), "new");
  // The engine in use is let go when it comes back.
  client.mPool->ReturnRpcEngine(inUse);
  EXPECT_EQ(client.mPool->Idle(), 1U);
  inUse = nullptr;
  EXPECT_TRUE(Eventually([&] { return oldServer.Connections() == 0; }));
  EXPECT_EQ(client.AskName(), "new");
  EXPECT_EQ(client.mPool->mMade, 3);
}

TEST(RpcEnginePool, ACallThatFailsHandsItsEngineBack) {
  NamedServer server("a");
  Client client(server.Port(), 1);
  CapturedLog log;
  EXPECT_EQ(client.Call(kRefuse), 2100041U);
  EXPECT_EQ(client.Call(kMeet, 100), 2020021U);  // nobody else comes
  EXPECT_EQ(client.mPool->Idle(), 1U);
  EXPECT_EQ(client.AskName(), "a");  // the same engine, connected anew
  EXPECT_EQ(client.mPool->mMade, 1);
  const auto lines = log.Texts(kError);
  EXPECT_EQ(client.Call(kMeet), 0U);  // lets the first one go
  EXPECT_THAT(lines, ElementsAre("Error code is 2100041 opcode: 3",
                                 "Failed to execute rpc sync call, opcode<3> ret<2100041>.",
                                 HasSubstr("rpc error. opcode: 2, -21: timed out timeout 100ms."),
                                 "Failed to execute rpc sync call, opcode<2> ret<2020021>."));
}

TEST(RpcEnginePool, WithoutAServer) {
  test::RawListener gone;
  const std::uint16_t port = gone.Port();
  gone.Close();
  Client client(port, 2);
  CapturedLog log;
  EXPECT_EQ(client.mPool->Fill(), 2020019U);
  EXPECT_TRUE(log.Has(kError, "Failed to get available shuffle rpc engine with ret<2020019>."));
  log.Clear();
  EXPECT_EQ(client.Call(kName), 2020019U);
  EXPECT_TRUE(log.Has(kError, "Failed to get available shuffle rpc engine with ret<2020019>."));
  EXPECT_EQ(client.mPool->Idle(), 0U);
  EXPECT_EQ(client.mPool->mMade, 2);  // each tries again

  RPCEngineBase none;
  log.Clear();
  EXPECT_EQ(none.SendCall(kName, BaseMessage::gNullPtr, BaseMessage::gNullPtr, 0), 2000057U);
  EXPECT_THAT(log.Texts(kError), ElementsAre("Unexpected nullptr value mEnginePool"));
}

TEST(RpcEnginePool, PortsAboveTheSignedRange) {
  const Ref<Pool> pool(new Pool(40000, 1));
  const Ref<RpcEngine> engine(new RpcEngine);
  engine->mIp = "127.0.0.1";
  engine->mPort = static_cast<short>(40000);
  pool->ReturnRpcEngine(engine);
  Ref<RpcEngine> taken;
  EXPECT_EQ(pool->GetRpcEngine(taken), 0U);
  EXPECT_TRUE(taken == engine);
}

TEST(RpcEnginePool, InitializeOfTheBase) {
  NamedServer server("a");
  CapturedLog log;
  Pool pool(server.Port(), 1);
  if (Configuration::GetInstance() == nullptr) {
    EXPECT_EQ(pool.Initialize(), 2000057U);
    EXPECT_THAT(log.Texts(kError), ElementsAre("Unexpected nullptr value mConfig"));
  }
  test::TempDir home;
  const std::string file = home.Write("vyn.conf",
                                      "vyn.tessel.rpc.enableTLS=false\n"
                                      "vyn.tessel.rpc.enableAuthentication=false\n"
                                      "vyn.tessel.rpc.tls.ca.cert.path=/ca\n"
                                      "vyn.tessel.rpc.tls.crl.path=/crl\n"
                                      "vyn.tessel.plx.ksf.primary.path=/ksf1\n"
                                      "vyn.tessel.plx.ksf.standby.path=/ksf2\n"
                                      "vyn.tessel.plx.ksf.backup.path=/ksf3\n"
                                      "vyn.tessel.rpc.auth.type=KERBEROS\n"
                                      "vyn.tessel.rpc.author.file.encrypted=f1\n"
                                      "vyn.tessel.rpc.auth.kerb.keytab.encrypted=f2\n"
                                      "vyn.tessel.rpc.auth.kerb.client.keytab=/client\n"
                                      "vyn.tessel.rpc.auth.kerb.server.keytab=/server\n"
                                      "vyn.tessel.rpc.auth.domain=DOMAIN\n"
                                      "vyn.tessel.rpc.auth.client.principle.name=clientname\n"
                                      "vyn.tessel.rpc.auth.server.principle.name=servername\n");
  ASSERT_FALSE(Configuration::GetInstance(file) == nullptr);

  std::map<std::string, const std::string> expected{
      {"tls.ca.cert.path", "/kept"},
      {"tls.crl.path", "/crl"},
      {"plx.ksf.primary.path", "/ksf1"},
      {"plx.ksf.standby.path", "/ksf2"},
      {"plx.ksf.backup.path", "/ksf3"},
      {"auth.type", "KERBEROS"},
      {"author.file.encrypted", "f1"},
      {"auth.kerb.keytab.encrypted", "f2"},
      {"auth.kerb.server.principal", "servername/" + VynGetHostname() + "@DOMAIN"},
      {"auth.kerb.client.principal", "clientname/" + VynGetHostname() + "@DOMAIN"},
      {"auth.kerb.keytab", "/client"},
      {"peer.worker.group.index", "5"},
  };
  pool.mTlsEnable = pool.mAuthEnable = true;
  pool.mSecurityConf.emplace("tls.ca.cert.path", "/kept");
  EXPECT_EQ(pool.Initialize(), 0U);
  EXPECT_EQ(pool.mSecurityConf, expected);
  EXPECT_FALSE(pool.mTlsEnable);
  EXPECT_FALSE(pool.mAuthEnable);
  EXPECT_EQ(pool.Idle(), 1U);

  Pool member(server.Port(), 1);
  member.mClientIdentity = false;
  member.mSetTimeoutResult = 77;
  log.Clear();
  EXPECT_EQ(member.Initialize(), 77U);
  EXPECT_THAT(log.Texts(kError), ElementsAre("Failed to execute setting."));
  EXPECT_EQ(member.mSecurityConf["auth.kerb.client.principal"], "servername/" + VynGetHostname() + "@DOMAIN");
  EXPECT_EQ(member.mSecurityConf["auth.kerb.keytab"], "/server");
}

}  // namespace
}  // namespace vyn::common
