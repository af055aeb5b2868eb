// The connection side: the leader, the retries, the pool.

#include "common/util/system.h"
#include "support/fake_clock.h"
#include "support/meta_client_test.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include <atomic>
#include <memory>
#include <thread>

namespace vyn::tessel {
namespace {

using std::chrono::seconds;
using test::CapturedLog;
using test::FakeClock;
using test::ScriptedService;

constexpr unsigned int kAppRemove = 0;
constexpr unsigned int kMetaLeaderInfo = 6;
const char* const kOutOfRetries =
    "Failed to call metadata service, connection is timeout and retry more than 3 times";

ScriptedService::Reply LeaderIs(const std::string& address) {
  MetaLeaderInformation leader(address);
  return {0, test::BytesOf(leader)};
}

void ExpectNoConnections(const ScriptedService& service) {
  const auto deadline = std::chrono::steady_clock::now() + seconds(60);
  while (service.Connections() != 0 && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  EXPECT_EQ(service.Connections(), 0U) << "idle engines of an old leader are left";
}

/// An executor: a node server that knows the leader, and two nodes that can be it.
class MetaRetryTest : public testing::Test {
 protected:
  MetaRetryTest() {
    mConf = test::PlainConfiguration();
    mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{mNodes.first->Port()});
    mNodeServer = std::make_unique<ScriptedService>();
    mConf->Set("vyn.tessel.rpc.shuffle_server.port", int{mNodeServer->Port()});
    mNodeServer->Answer(kMetaLeaderInfo, LeaderIs("127.0.0.1"));
    ShuffleServerRPCEngine::mPoolMode = false;
    mServerClient = ShuffleServerRPCEngine::CreateInstance();
    mClient = ShuffleMetaRPCEngine::CreateInstance(20000, true, mServerClient);
  }
  void SetUp() override {
    ASSERT_EQ(mServerClient->Initialize(1, true), 0U);
    ASSERT_EQ(mClient->Initialize(), 0U);
    ASSERT_EQ(Leader(), "127.0.0.1");
    mNodeServer->Clear();
  }

  std::uint32_t Send() {
    const Ref<ShuffleApplication> request(new ShuffleApplication);
    request->appId = "app";
    return mClient->SendAndWaitReply(kAppRemove, request, common::BaseMessage::gNullPtr);
  }

  Ref<common::Configuration> mConf;
  test::TwinServices mNodes;
  std::unique_ptr<ScriptedService> mNodeServer;
  Ref<ShuffleServerRPCEngine> mServerClient;
  Ref<ShuffleMetaRPCEngine> mClient;
};

TEST_F(MetaRetryTest, OnlyTheTwoTransportCodesAreRetriedAndTheLeaderIsAskedAfterEachFailure) {
  struct Case {
    std::vector<std::uint32_t> answers;
    std::vector<std::chrono::nanoseconds> sleeps;
    bool outOfRetries = false;
  };
  const Case cases[] = {
      {{0}, {}},
      {{2020019, 2020019, 2020019, 2020019}, {seconds(0), seconds(5), seconds(10), seconds(15)}, true},
      {{2020023}, {seconds(0)}},
      {{2020019, 2020023}, {seconds(0), seconds(5)}},
      {{2020021, 2020019, 0}, {seconds(0), seconds(5)}},
      {{2020019, 2020019, 2020019, 0}, {seconds(0), seconds(5), seconds(10)}},
      {{2020021, 2020021, 2020021, 2060011}, {seconds(0), seconds(5), seconds(10), seconds(15)}, true},
  };
  for (const Case& one : cases) {
    SCOPED_TRACE(testing::PrintToString(one.answers));
    FakeClock clock;
    CapturedLog log;
    mNodeServer->Clear();
    mNodes.first->Clear();
    std::size_t next = 0;
    mNodes.first->Answer(kAppRemove, [&](const auto&) {
      return ScriptedService::Reply{one.answers.at(next++), ""};
    });

    EXPECT_EQ(Send(), one.answers.back());
    EXPECT_EQ(mNodes.first->Requests().size(), one.answers.size());
    EXPECT_EQ(clock.Sleeps(), one.sleeps);
    EXPECT_EQ(mNodeServer->Count(kMetaLeaderInfo), one.sleeps.size());
    EXPECT_EQ(log.Has(4, kOutOfRetries), one.outOfRetries);
    for (std::size_t i = 0; i < one.sleeps.size(); ++i) {
      const std::uint32_t code = one.answers[i];
      EXPECT_TRUE(log.Has(3, "Failed to send syncRpc call of opcode: 0 hr is: " + std::to_string(code) +
                                 " retryTime: " + std::to_string(i) + " continue retry? " +
                                 (code == 2020019 || code == 2020021 ? "true" : "false")));
    }
  }
}

TEST_F(MetaRetryTest, ACallFollowsTheLeaderBetweenItsAttempts) {
  FakeClock clock;
  CapturedLog log;
  mNodes.first->Answer(kAppRemove, {2020019, ""});
  mNodeServer->Answer(kMetaLeaderInfo, LeaderIs("127.0.0.2"));
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.first->Requests().size(), 1U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
  EXPECT_EQ(Leader(), "127.0.0.2");
  EXPECT_EQ(test::ReadAs<MetaLeaderInformation>(mNodeServer->Requests().at(0).body)->metaLeaderInfo, "meta");
  EXPECT_TRUE(log.Has(2, "Get meta leader ip from shuffle server success, ip port: 127.0.0.2"));
  EXPECT_TRUE(log.Has(2, "Shuffle metadata LEADER ip changed to 127.0.0.2 port changed to " +
                             std::to_string(mNodes.first->Port())));

  // The old leader dies for good: a lost connection is retried as an answer that says so.
  mNodeServer->Answer(kMetaLeaderInfo, LeaderIs("127.0.0.1"));
  mNodes.first->Answer(kAppRemove, {0, ""});
  mNodes.second.reset();
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.first->Requests().size(), 2U);
}

TEST_F(MetaRetryTest, ASilentNodeServerIsToldAndTheRetriesGoOn) {
  FakeClock clock;
  CapturedLog log;
  mNodes.first->Answer(kAppRemove, {2020021, ""});
  mNodeServer.reset();
  EXPECT_EQ(Send(), 2020021U);
  EXPECT_EQ(mNodes.first->Requests().size(), 4U);
  EXPECT_TRUE(log.Has(4, "Meta engine Failed to get Meta leader info"));
  EXPECT_TRUE(log.Has(4, "Failed to get meta leader information, hr is: 2020021"));
  EXPECT_EQ(Leader(), "127.0.0.1");
  EXPECT_EQ(mClient->ShuffleMetaLeaderInfoGet(), 1U);

  ShuffleServerRPCEngine::mIsSdk = false;
  EXPECT_EQ(mClient->ShuffleMetaLeaderInfoGet(), 2080009U);
  EXPECT_TRUE(log.Has(4, "Get ShuffleServerRPCEnginePtr nullptr"));
}

TEST_F(MetaRetryTest, WithoutALeaderToTellThereIsNoPoolAndALaterInitializeRepairsIt) {
  CapturedLog log;
  mNodeServer->Answer(kMetaLeaderInfo, {2060011, ""});
  mClient = ShuffleMetaRPCEngine::CreateInstance(20000, true, mServerClient);
  EXPECT_EQ(mClient->Initialize(), 1U);
  EXPECT_TRUE(log.Has(4, "Failed to get leader info from server in retry time: 0"));
  EXPECT_EQ(Send(), 2000057U);
  EXPECT_TRUE(log.Has(4, "Unexpected nullptr value mEnginePool"));
  EXPECT_TRUE(log.Has(4, "Refresh Master Node Info Fail, error code:2000057"));
  EXPECT_TRUE(mNodes.first->Requests().empty());

  mNodeServer->Answer(kMetaLeaderInfo, LeaderIs("127.0.0.2"));
  EXPECT_EQ(mClient->Initialize(), 0U);
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
}

TEST_F(MetaRetryTest, ALeaderThatGotNoPoolIsStillMovedTo) {
  mNodeServer->Answer(kMetaLeaderInfo, LeaderIs("127.0.0.2"));
  mConf->Set("vyn.tessel.rpc.enableAuthentication", true);
  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "127.0.0.1:first");
  EXPECT_EQ(mClient->Initialize(), 1U) << "the new leader has no host name";
  mConf->Set("vyn.tessel.rpc.enableAuthentication", false);
  EXPECT_EQ(Send(), 0U) << "on the pool of before";
  EXPECT_TRUE(mNodes.first->Requests().empty());
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
}

TEST_F(MetaRetryTest, TheServerClientMayBeReplacedWhileOthersAskIt) {
  FakeClock clock;
  mNodes.first->Answer(kAppRemove, {2020023, ""});
  std::atomic<bool> done{false};
  std::vector<std::thread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      while (!done) {
        EXPECT_EQ(Send(), 2020023U);
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(ShuffleServerRPCEngine::CreateInstance()->Initialize(1, true), 0U);
    EXPECT_EQ(ShuffleMetaRPCEngine::CreateInstance(20000, true, mServerClient)->Initialize(), 0U);
    EXPECT_EQ(mClient->InitializeEnginePool("127.0.0.1"), 0U);
  }
  done = true;
  for (std::thread& caller : callers) {
    caller.join();
  }
}

TEST_F(MetaClientTest, ADriverAsksNobodyAndFollowsTheRecord) {
  FakeClock clock;
  mService.Answer(kAppRemove, {2020023, ""});
  EXPECT_EQ(mClient->ShuffleMetaLeaderInfoGet(), 0U);
  EXPECT_EQ(mClient->AppRemove("app"), 2060009U);
  EXPECT_EQ(mService.Count(kMetaLeaderInfo), 0U);
  EXPECT_EQ(Leader(), "127.0.0.1");
}

TEST_F(MetaClientTest, ALeaderThatIsNotThereYetIsConnectedToByALaterCall) {
  FakeClock clock;
  CapturedLog log;
  ScriptedService other;
  mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{other.Port()});
  SetLeader("127.0.0.3");
  EXPECT_EQ(mClient->Initialize(), 2060007U);
  EXPECT_TRUE(log.Has(4, "Failed to initialize meta rpc engine."));
  EXPECT_TRUE(
      log.Has(4, "Failed to initialize meta rpc client by meta rpc engine pool with error code 2020019"));
  EXPECT_TRUE(log.Has(4, "Failed to reconnect to <127.0.0.3>."));
  EXPECT_EQ(mClient->AppRemove("app"), 2060009U);
  EXPECT_EQ(clock.Sleeps().size(), 4U);

  ScriptedService late("127.0.0.3", other.Port());
  EXPECT_EQ(mClient->AppRemove("app"), 0U);
  EXPECT_EQ(late.Requests().size(), 1U);
}

TEST_F(MetaClientTest, AuthenticationNeedsTheLeadersHostName) {
  CapturedLog log;
  mConf->Set("vyn.tessel.rpc.enableAuthentication", true);
  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "10.0.0.1:other");
  auto client = ShuffleMetaRPCEngine::CreateInstance(kTimeout, true, nullptr);
  EXPECT_EQ(client->Initialize(), 1U);
  EXPECT_TRUE(log.Has(4, "Not in <vyn.tessel.rpc.auth.meta.principle.mapping> or has incorrect format"));
  EXPECT_TRUE(client->EnginePool() == nullptr);
  EXPECT_EQ(client->AppRemove("app"), 2060009U);

  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "127.0.0.1:leader,10.0.0.1:other");
  mConf->Set("vyn.tessel.rpc.auth.server.principle.name", "server");
  mConf->Set("vyn.tessel.rpc.auth.domain", "DOMAIN");
  EXPECT_EQ(client->Initialize(), 2060007U) << "no mechanism is present";
  ASSERT_TRUE(client->EnginePool() != nullptr);
  EXPECT_EQ(client->EnginePool()->mSecurityConf["auth.kerb.server.principal"], "server/leader@DOMAIN");
  EXPECT_TRUE(client->EnginePool()->mAuthEnable);

  mConf->Set("vyn.tessel.rpc.enableAuthentication", false);
  EXPECT_EQ(client->Initialize(), 0U);
  EXPECT_EQ(client->EnginePool()->mSecurityConf["auth.kerb.server.principal"], "server/@DOMAIN");
  EXPECT_EQ(client->AppRemove("app"), 0U);
}

TEST_F(MetaClientTest, SecuritySettingsFollowTheSide) {
  const std::string host = common::VynGetHostname();
  mConf->Set("vyn.tessel.rpc.tls.crl.path", "/crl");
  mConf->Set("vyn.tessel.rpc.tls.sdk.crl.path", "/sdk/crl");
  mConf->Set("vyn.tessel.rpc.auth.kerb.client.keytab", "/client.keytab");
  mConf->Set("vyn.tessel.rpc.auth.kerb.server.keytab", "/server.keytab");
  mConf->Set("vyn.tessel.rpc.auth.client.principle.name", "client");
  mConf->Set("vyn.tessel.rpc.auth.server.principle.name", "server");
  mConf->Set("vyn.tessel.rpc.auth.domain", "DOMAIN");
  for (const bool isSdk : {false, true}) {
    const auto client = ShuffleMetaRPCEngine::CreateInstance(0, isSdk, nullptr);
    std::map<std::string, const std::string> conf;
    client->GetSecurityConf(conf, "leader");
    EXPECT_EQ(conf.size(), 12U);
    EXPECT_EQ(conf["tls.crl.path"], isSdk ? "/sdk/crl" : "/crl");
    EXPECT_EQ(conf["auth.kerb.server.principal"], "server/leader@DOMAIN");
    EXPECT_EQ(conf["auth.kerb.keytab"], isSdk ? "/client.keytab" : "/server.keytab");
    EXPECT_EQ(conf["auth.kerb.client.principal"], (isSdk ? "client/" : "server/") + host + "@DOMAIN");
  }
}

TEST(MetaLeaderMovesTest, SixteenThreadsFollowALeaderThatGoesBackAndForth) {
  test::TwinServices nodes;
  const auto conf = test::PlainConfiguration();
  conf->Set("vyn.tessel.rpc.shuffle_meta.port", int{nodes.first->Port()});
  const auto metaNode = common::MetaNodeInfo::GetInstance();
  std::atomic<int> move{0};  // an even one leads to the first node
  const auto moveTo = [&](int next) {
    std::unique_lock lock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = next % 2 == 0 ? "127.0.0.1" : "127.0.0.2";
    move = next;
  };
  moveTo(0);
  // Each node answers its own number, so that a caller knows who served it.
  for (const auto& [node, number] : {std::pair(nodes.first.get(), 1U), std::pair(nodes.second.get(), 2U)}) {
    NodeInformation self;
    self.hostName = "node";
    self.nodeId = number;
    node->Answer(15, {0, test::BytesOf(self)});
  }
  const auto client = ShuffleMetaRPCEngine::CreateInstance(20000, true, nullptr);
  ASSERT_EQ(client->Initialize(), 0U);
  const auto askWho = [&] {
    const Ref<MapTaskStatus> request(new MapTaskStatus);
    const Ref<NodeInformation> response(new NodeInformation);
    EXPECT_EQ(client->SendAndWaitReply(15, request, response), 0U);
    return response->nodeId;
  };

  std::atomic<bool> done{false};
  std::atomic<int> strict{0};
  std::vector<std::thread> callers;
  for (int i = 0; i < 16; ++i) {
    callers.emplace_back([&] {
      while (!done) {
        const int before = move;
        const std::uint32_t who = askWho();
        if (move == before) {  // no move in between: it must have been the leader of that time
          EXPECT_EQ(who, before % 2 == 0 ? 1U : 2U);
          ++strict;
        } else {
          EXPECT_TRUE(who == 1 || who == 2);
        }
      }
    });
  }
  for (int next = 1; next <= 100; ++next) {
    const int enough = strict + 4;
    while (strict < enough) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    moveTo(next);
  }
  done = true;
  for (std::thread& caller : callers) {
    caller.join();
  }
  EXPECT_EQ(askWho(), 1U);
  ExpectNoConnections(*nodes.second);
  EXPECT_GE(nodes.first->Connections(), 1U);
}

TEST_F(MetaRetryTest, AnEngineThatComesBackDoesNotBuryThoseOfTheOldLeader) {
  const auto pool = mClient->EnginePool();
  const auto take = [&](const std::string& leader) {
    SetLeader(leader);
    EXPECT_EQ(mClient->RefreshMasterNodeInfo(true), 0U);
    Ref<common::RpcEngine> engine;
    EXPECT_EQ(pool->GetRpcEngine(engine), 0U);
    return engine;
  };
  const auto busy = take("127.0.0.2");
  pool->ReturnRpcEngine(take("127.0.0.1"));
  SetLeader("127.0.0.2");
  EXPECT_EQ(mClient->RefreshMasterNodeInfo(true), 0U);
  pool->ReturnRpcEngine(busy);
  EXPECT_EQ(Send(), 0U);
  ExpectNoConnections(*mNodes.first);
}

}  // namespace
}  // namespace vyn::tessel
