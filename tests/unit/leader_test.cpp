// The connection side of the clients: how they follow the leader, what they retry, how they begin.

#include "support/client/client_test.h"
#include "support/fake_clock.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

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

TEST_F(LeaderTest, ACallIsRetriedAfterATimeoutOrLostConnectionAndAsksForTheLeader) {
  const std::vector<std::uint32_t> cases[] = {{0},
                                              {2020023},
                                              {2020021, 2020019, 0},
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
  EXPECT_EQ(test::ReadAs<MetaLeaderInformation>(mNodeServer->Requests().at(0).body)->metaLeaderInfo, "meta");

  // The old leader dies for good: a lost connection is retried as an answer that says so.
  NodeServerSays("127.0.0.1");
  mNodes.first->Answer(kAppRemove, {0, ""});
  mNodes.second.reset();
  EXPECT_EQ(Send(), 0U);
  EXPECT_EQ(mNodes.first->Requests().size(), 2U);

  mNodes.first->Answer(kAppRemove, {2020021, ""});
  mNodeServer.reset();
  EXPECT_EQ(Send(), 2020021U);
  EXPECT_EQ(mNodes.first->Requests().size(), 6U) << "the retries go on when nobody tells of the leader";
}

TEST_F(LeaderTest, ADriverConnectsToALateLeaderWithoutAskingTheNodeServer) {
  FakeClock clock;
  ScriptedService other;
  mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{other.Port()});
  SetLeader("127.0.0.3");
  EXPECT_EQ(mDriver->Initialize(), 2060007U);
  EXPECT_EQ(mDriver->AppRemove("app"), 2060009U);
  EXPECT_EQ(Slept(clock), seconds(30));
  ScriptedService late("127.0.0.3", other.Port());
  late.Answer(kAppRemove, [](const auto&) {
    SetLeader("127.0.0.1");
    return ScriptedService::Reply{2020021, ""};
  });
  EXPECT_EQ(mDriver->AppRemove("app"), 0U);
  EXPECT_EQ(late.Requests().size(), 1U);
  EXPECT_EQ(other.Requests().size(), 1U);
  EXPECT_TRUE(mNodeServer->Requests().empty());
}

TEST_F(LeaderTest, TheReplyOfANewLeaderEndsThePausesOfTheRetries) {
  FakeClock clock;
  ASSERT_EQ(mDriver->Initialize(), 0U);
  mNodes.first->Answer(kAppRemove, [calls = 0](const auto&) mutable {
    SetLeader(++calls == 2 ? "127.0.0.2" : "127.0.0.1");
    return ScriptedService::Reply{2020019, ""};
  });
  mNodes.second->Answer(kAppRemove, {2060011, ""});
  EXPECT_EQ(mDriver->AppRemove("app"), 2060009U);
  EXPECT_EQ(Slept(clock), seconds(0));
}

TEST_F(LeaderTest, ACallLeavesAFrozenLeaderAsSoonAsANewLeaderIsKnown) {
  for (const bool driver : {true, false}) {  // a driver learns of the leader by itself, an executor asks
    SetLeader("127.0.0.1");
    NodeServerSays("127.0.0.1");
    const auto client = ShuffleMetaRPCEngine::CreateInstance(600000, true, driver ? nullptr : mServer);
    ASSERT_EQ(client->Initialize(), 0U);
    const std::size_t before = mNodes.second->Count(kAppRemove);
    const auto served = std::make_shared<std::atomic<bool>>(false);
    mNodes.first->Answer(kAppRemove, [this, driver, served](const auto&) {
      NodeServerSays("127.0.0.2");
      if (driver) {
        SetLeader("127.0.0.2");
      }
      static_cast<void>(test::WaitUntil([&] { return served->load(); }));
      return ScriptedService::Reply{0, ""};
    });
    EXPECT_EQ(client->AppRemove("app"), 0U);
    EXPECT_EQ(mNodes.second->Count(kAppRemove), before + 1);
    *served = true;
  }
}

TEST_F(LeaderTest, SixteenThreadsFollowALeadershipThatAlternatesBetweenNodes) {
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
  std::atomic<bool> done{false};
  std::atomic<int> strict{0};
  std::vector<std::jthread> callers;
  for (int i = 0; i < 16; ++i) {
    callers.emplace_back([&] {
      while (!done) {
        const int before = move;
        const Ref<MapTaskStatus> request(new MapTaskStatus);
        const Ref<NodeInformation> response(new NodeInformation);
        EXPECT_EQ(mDriver->SendAndWaitReply(kFindWorker, request, response), 0U);
        if (move == before) {  // no move in between: it must have been the leader of that time
          EXPECT_EQ(response->nodeId, before % 2 == 0 ? 1U : 2U);
          ++strict;
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
}

}  // namespace
}  // namespace vyn::tessel
