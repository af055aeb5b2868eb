// The connection side of the clients: how they follow the leader, what they retry, how they begin.

#include "common/util/system.h"
#include "support/client_test.h"
#include "support/fake_clock.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tuning/rpc/tuning_rpc_engine.h"

namespace vyn::tessel {
namespace {

using std::chrono::seconds;
using test::FakeClock;
using test::ScriptedService;

constexpr unsigned int kAppRemove = 0;
constexpr unsigned int kMetaLeaderInfo = 6;
constexpr unsigned int kFindWorker = 15;

/// An executor: a node server that knows the leader, and two nodes that can be it.
class LeaderTest : public testing::Test {
 protected:
  LeaderTest() {
    mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{mNodes.first->Port()});
    mConf->Set("vyn.tuning.rpc.server.port", int{mNodes.first->Port()});
    mConf->Set("vyn.tessel.rpc.shuffle_server.port", int{mNodeServer->Port()});
    NodeServerSays("127.0.0.1");
    ShuffleServerRPCEngine::mPoolMode = false;
    mServer = ShuffleServerRPCEngine::CreateInstance();
    mClient = ShuffleMetaRPCEngine::CreateInstance(20000, true, mServer);
    mDriver = ShuffleMetaRPCEngine::CreateInstance(8001, true, nullptr);
  }
  void SetUp() override {
    ASSERT_EQ(mServer->Initialize(1, true), 0U);
    ASSERT_EQ(mClient->Initialize(), 0U);
    ASSERT_EQ(Leader(), "127.0.0.1");
    mNodeServer->Clear();
  }

  void NodeServerSays(const std::string& leader) {
    MetaLeaderInformation answer(leader);
    mNodeServer->Answer(kMetaLeaderInfo, {0, test::BytesOf(answer)});
  }
  static std::chrono::nanoseconds Slept(FakeClock& clock) {
    const auto sleeps = clock.Sleeps();
    return std::accumulate(sleeps.begin(), sleeps.end(), std::chrono::nanoseconds());
  }
  std::uint32_t Send() {
    const Ref<ShuffleApplication> request(new ShuffleApplication);
    request->appId = "app";
    return mClient->SendAndWaitReply(kAppRemove, request, common::BaseMessage::gNullPtr);
  }

  Ref<common::Configuration> mConf = test::PlainConfiguration();
  test::TwinServices mNodes;
  std::unique_ptr<ScriptedService> mNodeServer = std::make_unique<ScriptedService>();
  Ref<ShuffleServerRPCEngine> mServer;
  Ref<ShuffleMetaRPCEngine> mClient;
  Ref<ShuffleMetaRPCEngine> mDriver;  ///< has no server client
};

TEST_F(LeaderTest, OnlyTheTwoTransportCodesAreRetriedAndTheLeaderIsAskedAfterEachFailure) {
  const std::vector<std::uint32_t> cases[] = {{0},
                                              {2020023},
                                              {2060011},
                                              {2020019, 2020023},
                                              {2020021, 2020019, 0},
                                              {2020019, 2020019, 2020019, 0},
                                              {2020019, 2020019, 2020019, 2020019},
                                              {2020021, 2020021, 2020021, 2060011}};
  for (const auto& answers : cases) {
    SCOPED_TRACE(testing::PrintToString(answers));
    FakeClock clock;
    mNodeServer->Clear();
    mNodes.first->Clear();
    std::size_t next = 0;
    mNodes.first->Answer(kAppRemove, [&](const auto&) {
      return ScriptedService::Reply{answers.at(next++), ""};
    });
    EXPECT_EQ(Send(), answers.back());
    EXPECT_EQ(mNodes.first->Requests().size(), answers.size());
    const auto failures =
        answers.size() - static_cast<std::size_t>(std::count(answers.begin(), answers.end(), 0));
    EXPECT_EQ(Slept(clock), seconds(5) * (failures * (failures - 1) / 2)) << "5 s more after each";
    EXPECT_EQ(mNodeServer->Count(kMetaLeaderInfo), failures);
  }
}

TEST_F(LeaderTest, ACallFollowsTheLeaderBetweenItsAttempts) {
  FakeClock clock;
  mNodes.first->Answer(kAppRemove, {2020019, ""});
  NodeServerSays("127.0.0.2");
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.first->Requests().size(), 1U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
  EXPECT_EQ(Leader(), "127.0.0.2");
  EXPECT_EQ(test::ReadAs<MetaLeaderInformation>(mNodeServer->Requests().at(0).body)->metaLeaderInfo, "meta");

  // The old leader dies for good: a lost connection is retried as an answer that says so.
  NodeServerSays("127.0.0.1");
  mNodes.first->Answer(kAppRemove, {0, ""});
  mNodes.second.reset();
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.first->Requests().size(), 2U);
}

TEST_F(LeaderTest, ASilentNodeServerIsToldAndTheRetriesGoOn) {
  FakeClock clock;
  mNodes.first->Answer(kAppRemove, {2020021, ""});
  mNodeServer.reset();
  EXPECT_EQ(Send(), 2020021U);
  EXPECT_EQ(mNodes.first->Requests().size(), 4U);
  EXPECT_EQ(Leader(), "127.0.0.1");
  EXPECT_EQ(mClient->ShuffleMetaLeaderInfoGet(), 1U);
  ShuffleServerRPCEngine::mIsSdk = false;
  EXPECT_EQ(mClient->ShuffleMetaLeaderInfoGet(), 2080009U) << "there is no server client of this side";
}

TEST_F(LeaderTest, ALaterInitializeRepairsAClientThatNoLeaderWasToldTo) {
  mNodeServer->Answer(kMetaLeaderInfo, {2060011, ""});
  mClient = ShuffleMetaRPCEngine::CreateInstance(20000, true, mServer);
  EXPECT_EQ(mClient->Initialize(), 1U);
  EXPECT_EQ(Send(), 2000057U);
  EXPECT_TRUE(mNodes.first->Requests().empty());
  NodeServerSays("127.0.0.2");
  EXPECT_EQ(mClient->Initialize(), 0U);
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
}

TEST_F(LeaderTest, AuthenticationNeedsTheLeadersHostName) {
  mConf->Set("vyn.tessel.rpc.enableAuthentication", true);
  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "127.0.0.1:leader,10.0.0.1:other");
  mConf->Set("vyn.tessel.rpc.auth.server.principle.name", "server");
  mConf->Set("vyn.tessel.rpc.auth.domain", "DOMAIN");
  EXPECT_EQ(mDriver->Initialize(), 2060007U) << "no mechanism is present";
  EXPECT_TRUE(mDriver->EnginePool()->mAuthEnable);
  EXPECT_EQ(mDriver->EnginePool()->mSecurityConf["auth.kerb.server.principal"], "server/leader@DOMAIN");
  std::map<std::string, const std::string> conf;
  mDriver->GetSecurityConf(conf, "host");
  EXPECT_EQ(conf["auth.kerb.server.principal"], "server/host@DOMAIN");

  NodeServerSays("127.0.0.2");
  EXPECT_EQ(mClient->Initialize(), 1U) << "the new leader has no host name";
  const auto fresh = ShuffleMetaRPCEngine::CreateInstance(20000, true, mServer);
  EXPECT_EQ(fresh->Initialize(), 1U);
  EXPECT_EQ(fresh->AppRemove("app"), 2060009U);
  mConf->Set("vyn.tessel.rpc.enableAuthentication", false);
  EXPECT_EQ(Send(), 0U) << "the pool of before is still moved";
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
  EXPECT_TRUE(mNodes.first->Requests().empty());
}

TEST_F(LeaderTest, ADriverAsksNobodyAndFollowsTheRecord) {
  FakeClock clock;
  ASSERT_EQ(mDriver->Initialize(), 0U);
  mNodes.first->Answer(kAppRemove, [](const auto&) {
    SetLeader("127.0.0.2");
    return ScriptedService::Reply{2020021, ""};
  });
  EXPECT_EQ(mDriver->AppRemove("app"), 0U);
  EXPECT_EQ(mDriver->ShuffleMetaLeaderInfoGet(), 0U);
  EXPECT_EQ(mNodes.second->Requests().size(), 1U);
  EXPECT_TRUE(mNodeServer->Requests().empty());
}

TEST_F(LeaderTest, ALeaderThatIsNotThereYetIsConnectedToByALaterCall) {
  FakeClock clock;
  ScriptedService other;
  mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{other.Port()});
  SetLeader("127.0.0.3");
  EXPECT_EQ(mDriver->Initialize(), 2060007U);
  EXPECT_EQ(mDriver->AppRemove("app"), 2060009U);
  EXPECT_EQ(Slept(clock), seconds(30));
  ScriptedService late("127.0.0.3", other.Port());
  EXPECT_EQ(mDriver->AppRemove("app"), 0U);
  EXPECT_EQ(late.Requests().size(), 1U);
}

TEST_F(LeaderTest, TheTuningClientTellsThePoolsOwnFailure) {
  FakeClock clock;
  const auto tuning = tuning::TuningRpcEngine::CreateInstance(9001, false, 3);
  EXPECT_EQ(tuning::TuningRpcEngine::GetInstance().Get(), tuning.Get());
  const auto beat = [&] { return tuning->HeartBeat("app", 1, "driver", "", true); };
  EXPECT_EQ(beat(), 2060009U) << "there is no pool yet";
  SetLeader("127.0.0.3");
  EXPECT_EQ(tuning->Initialize(), 2020019U);
  SetLeader("127.0.0.1");
  EXPECT_EQ(beat(), 0U) << "the pool stands and follows the leader";
  mConf->Set("vyn.tessel.rpc.enableAuthentication", true);
  mConf->Set("vyn.tessel.rpc.auth.meta.principle.mapping", "");
  EXPECT_EQ(tuning->Initialize(), 1U);
  mConf->Set("vyn.tessel.rpc.enableAuthentication", false);
  SetLeader("");
  EXPECT_NE(tuning->Initialize(), 0U);
}

TEST_F(LeaderTest, AClientMayBeReplacedWhileOthersAskIt) {
  FakeClock clock;
  mNodes.first->Answer(kAppRemove, {2020023, ""});
  std::atomic<bool> done{false};
  std::vector<std::jthread> callers;
  for (int i = 0; i < 8; ++i) {
    callers.emplace_back([&] {
      while (!done) {
        EXPECT_EQ(Send(), 2020023U);
      }
    });
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(ShuffleServerRPCEngine::CreateInstance()->Initialize(1, true), 0U);
    EXPECT_EQ(ShuffleMetaRPCEngine::CreateInstance(20000, true, mServer)->Initialize(), 0U);
    EXPECT_EQ(mClient->InitializeEnginePool("127.0.0.1"), 0U);
  }
  done = true;
}

TEST_F(LeaderTest, SixteenThreadsFollowALeaderThatGoesBackAndForth) {
  ASSERT_EQ(mDriver->Initialize(), 0U);
  const auto metaNode = common::MetaNodeInfo::GetInstance();
  std::atomic<int> move{0};  // an even one leads to the first node
  const auto moveTo = [&](int next) {
    std::unique_lock lock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = next % 2 == 0 ? "127.0.0.1" : "127.0.0.2";
    move = next;
  };
  moveTo(0);
  // Each node answers its own number, so that a caller knows who served it.
  for (const auto& [node, number] : {std::pair(mNodes.first.get(), 1U), std::pair(mNodes.second.get(), 2U)}) {
    NodeInformation self;
    self.nodeId = number;
    node->Answer(kFindWorker, {0, test::BytesOf(self)});
  }
  const auto askWho = [&] {
    const Ref<MapTaskStatus> request(new MapTaskStatus);
    const Ref<NodeInformation> response(new NodeInformation);
    EXPECT_EQ(mDriver->SendAndWaitReply(kFindWorker, request, response), 0U);
    return response->nodeId;
  };
  std::atomic<bool> done{false};
  std::atomic<int> strict{0};
  std::vector<std::jthread> callers;
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
    EXPECT_TRUE(test::WaitUntil([&] { return strict >= enough; }));
    moveTo(next);
  }
  done = true;
  callers.clear();
  EXPECT_EQ(askWho(), 1U);
  EXPECT_TRUE(test::WaitUntil([&] { return mNodes.second->Connections() == 0; }));
  EXPECT_GE(mNodes.first->Connections(), 1U);
}

TEST_F(LeaderTest, AnEngineThatComesBackDoesNotBuryThoseOfTheOldLeader) {
  const auto pool = mClient->EnginePool();
  const auto take = [&](const std::string& leader) {
    SetLeader(leader);
    EXPECT_EQ(mClient->RefreshMasterNodeInfo(true), 0U);
    Ref<common::RpcEngine> engine;
    EXPECT_EQ(pool->GetRpcEngine(engine), 0U);
    return engine;
  };
  auto late = take("127.0.0.2");
  const auto busy = take("127.0.0.2");
  pool->ReturnRpcEngine(take("127.0.0.1"));
  pool->ReturnRpcEngine(std::exchange(late, nullptr));  // the leader has moved meanwhile: it is not kept
  EXPECT_TRUE(test::WaitUntil([&] { return mNodes.second->Connections() == 1; }));
  SetLeader("127.0.0.2");
  EXPECT_EQ(mClient->RefreshMasterNodeInfo(true), 0U);
  pool->ReturnRpcEngine(busy);
  EXPECT_EQ(Send(), 0U);
  EXPECT_TRUE(test::WaitUntil([&] { return mNodes.first->Connections() == 0; }));
}

TEST_F(LeaderTest, TheServerClientConnectsWhenTheDaemonIsUp) {
  const auto fresh = ShuffleServerRPCEngine::CreateInstance();
  EXPECT_EQ(fresh->AppUnregister("app", ""), 1U) << "there is no pool yet";
  const unsigned short port = mNodeServer->Port();
  mNodeServer.reset();
  EXPECT_EQ(fresh->Initialize(3, true), 2020019U);
  EXPECT_EQ(fresh->AppUnregister("app", ""), 1U);
  mNodeServer = std::make_unique<ScriptedService>("127.0.0.1", port);
  EXPECT_EQ(fresh->AppUnregister("app", ""), 0U);
  EXPECT_EQ(ShuffleServerRPCEngine::mShuffleServerIp, "127.0.0.1");
  EXPECT_EQ(common::RpcEngine::mTimeout, 5000);
}

TEST_F(LeaderTest, OneServerClientServesOneSideAndIsTheClientInBoth) {
  EXPECT_EQ(ShuffleServerRPCEngine::GetInstance(true).Get(), mServer.Get());
  ASSERT_EQ(mServer->Initialize(1, false), 0U);
  EXPECT_TRUE(ShuffleServerRPCEngine::GetInstance(true) == nullptr);
  EXPECT_EQ(ShuffleServerRPCEngine::GetInstance(false).Get(), mServer.Get());
  ShuffleServerRPCEngine::gShuffleServerRPCEngine = nullptr;
  EXPECT_TRUE(ShuffleServerRPCEngine::GetInstance(false) != nullptr) << "made when there is none";

  mConf->Set("vyn.tessel.rpc.auth.kerb.client.keytab", "/client.keytab");
  mConf->Set("vyn.tessel.rpc.auth.client.principle.name", "client");
  for (const bool isSdk : {false, true}) {
    std::map<std::string, const std::string> conf{{"auth.type", "kept"}};
    mServer->GetSecurityConf(conf, isSdk);
    EXPECT_EQ(conf["auth.type"], "kept");
    EXPECT_EQ(conf["auth.kerb.keytab"], "/client.keytab");
    EXPECT_EQ(conf["auth.kerb.client.principal"].find("client/" + common::VynGetHostname() + "@"), 0U);
  }
}

}  // namespace
}  // namespace vyn::tessel
