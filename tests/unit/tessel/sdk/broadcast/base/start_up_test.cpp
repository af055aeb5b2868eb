// Start-up, its failures and repetitions, in both roles.

#include "support/sdk_world.h"
#include "tessel/sdk/broadcast/base/base_api_broadcast.h"
#include "tessel/sdk/broadcast/base/sdk_state.h"
#include "vyn/big_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vyn::test {
namespace {

using namespace tessel;
using testing::HasSubstr;

TEST(StartUpTest, FailuresBeforeTheLoggerTellStandardOutputAndFreeTheClaim) {
  SdkWorld world;
  EXPECT_EQ(BroadcastInitialize(nullptr, "24.0.0", VYN_BINARY_TYPE, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize(world.Home().c_str(), nullptr, VYN_BINARY_TYPE, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize(world.Home().c_str(), "24.0.0", nullptr, 1), 2000057U);
  EXPECT_EQ(BroadcastInitialize("/no/such/home", "24.0.0", VYN_BINARY_TYPE, 1), 1U);

  std::filesystem::remove_all(world.Home() + "/conf");
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "Configuration file doesn't exist\nError to init config \n");

  world.WriteConf();
  std::ofstream(world.Home() + "/conf/vyn.conf", std::ios::app) << "no.such.key=1\n";
  testing::internal::CaptureStdout();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), HasSubstr("Error to init config "));

  world.WriteConf();
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_TRUE(g_clusterZkAdapter_broadcast == nullptr) << "an executor has no session with ZooKeeper";
  EXPECT_EQ(world.bm.script.Calls("BM_Init"), std::vector<std::string>{Joined(world.Home(), 0)});
}

TEST(StartUpTest, AnExecutorWithoutItsServerFailsAndMayTryAgain) {
  SdkWorld world;
  world.WriteConf();
  world.server.Answer(ShuffleServer::META_LEADER_INFO, {2140019, ""});
  testing::internal::CaptureStderr();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("[Broadcast] Failed to get meta leader ip from shuffle service"));
  EXPECT_EQ(g_initClaim.load(), 0);
  MetaLeaderInformation leader("127.0.0.1");
  world.server.Answer(ShuffleServer::META_LEADER_INFO, {0, BytesOf(leader)});
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests()[0].body)->metaLeaderInfo, "sdk");
  EXPECT_EQ(ReadAs<MetaLeaderInformation>(world.server.Requests().back().body)->metaLeaderInfo, "meta");
}

TEST(StartUpTest, EachLaterFailureHasItsStatus) {
  SdkWorld world;
  world.WriteConf("", "vyn.tessel.rpc.openssl.path=\n");
  testing::internal::CaptureStderr();
  EXPECT_EQ(world.Initialize(1), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(), HasSubstr("Ssl path or crypto path is not exist."));
  // The store is loaded once a process: the value is mended in place.
  common::Configuration::GetInstance()->Set("vyn.tessel.rpc.openssl.path", std::string("libssl.so.3"));

  world.bm.script.ExpectResults("BM_Init", {-1});
  EXPECT_EQ(world.Initialize(1), 2100021U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Call BM_Init failed");
  EXPECT_EQ(world.Initialize(1), 0U);
}

TEST(StartUpTest, ReadyUninitialisedAndBack) {
  SdkWorld world;
  world.WriteConf();
  EXPECT_EQ(world.Initialize(1), 0U);
  const auto* first = g_broadcastCache.Get();
  g_broadcastCache->InsertVarInfo("a-1", {"x"}, {1});
  setenv("VYN_VERSION", "none", 1);
  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_STREQ(getenv("VYN_VERSION"), "24.0.0") << "also a repeated call sets the environment";
  EXPECT_EQ(g_broadcastCache.Get(), first);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);

  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("a-1") == nullptr);
  EXPECT_EQ(BroadcastUninitialize(), 0U);
  EXPECT_EQ(g_initClaim.load(), 0);

  EXPECT_EQ(world.Initialize(1), 0U);
  EXPECT_EQ(g_initClaim.load(), 1);
  EXPECT_EQ(g_initInProgress.load(), 0);
  EXPECT_EQ(g_uninitClaim.load(), 0);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 2U);
}

TEST(StartUpTest, SixteenThreadsOfWhichTheFirstFails) {
  SdkWorld world;
  world.WriteConf();
  MetaLeaderInformation leader("127.0.0.1");
  std::atomic<int> asked{0};
  const std::string good = BytesOf(leader);
  world.server.Answer(ShuffleServer::META_LEADER_INFO, [&](const auto&) -> ScriptedService::Reply {
    if (asked++ == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(200));  // the others are waiting by then
      return {2140019, ""};
    }
    return {0, good};
  });
  std::atomic<int> succeeded{0};
  std::atomic<int> failed{0};
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 16; ++i) {
      threads.emplace_back([&] { (world.Initialize(1) == 0 ? succeeded : failed)++; });
    }
  }
  EXPECT_EQ(failed, 1) << "those who waited try it themselves";
  EXPECT_EQ(succeeded, 15);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").size(), 1U);
}

TEST(StartUpTest, ASecondCallDuringAReinitialisationGetsItsResult) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  BroadcastUninitialize();
  std::atomic<bool> asked{false};
  world.server.Answer(ShuffleServer::META_LEADER_INFO, [&](const auto&) -> ScriptedService::Reply {
    asked = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return {2140019, ""};
  });
  std::uint32_t first = 0;
  std::jthread runner([&] { first = world.Initialize(1); });
  while (!asked) {
    std::this_thread::yield();
  }
  EXPECT_EQ(world.Initialize(1), 1U);
  runner.join();
  EXPECT_EQ(first, 1U);
  EXPECT_EQ(world.server.Count(ShuffleServer::META_LEADER_INFO), 3U)
      << "two of the first start, one of the second";
}

TEST(StartUpTest, ADriverLearnsItsLeaderAndWhetherItsNodeIsInTheFabric) {
  DriverGround ground;
  SdkWorld world;
  world.WriteConf(ground.url);
  world.meta.Answer(ShuffleMeta::IS_MF_NODE, {2060011, ""});
  EXPECT_EQ(world.Initialize(0), 2120003U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Failed to judge whether this node is a MF node or not.");
  EXPECT_TRUE(g_shuffleServerRPCEngine == nullptr);

  world.AnswerMfNode(true, 5);
  EXPECT_EQ(world.Initialize(0), 0U);
  EXPECT_EQ(g_mfClientFlag, 0U);
  EXPECT_EQ(g_mfNodeId, 5U);
  const auto request = ReadAs<BroadcastRemoteNodeReq>(world.meta.Requests().back().body);
  EXPECT_THAT(request->candidateNodes, testing::Contains("127.0.0.1"));
  EXPECT_TRUE(std::is_sorted(request->candidateNodes.begin(), request->candidateNodes.end()));

  BroadcastUninitialize();
  world.AnswerMfNode(false, 5);
  EXPECT_EQ(world.Initialize(0), 0U);
  EXPECT_EQ(g_mfClientFlag, 1U);
  EXPECT_EQ(world.bm.script.Calls("BM_Init").back(), Joined(world.Home(), 1));

  // The watch: a new leader is known without a call.
  ground.raw.Delete("/meta/election/leader_info");
  ground.raw.Create("/meta/election/leader_info", "127.0.0.2");
  EXPECT_TRUE(WaitUntil([] {
    std::shared_lock lock(g_metaNode_broadcast->mLeaderLock);
    return g_metaNode_broadcast->mLeaderAddress == "127.0.0.2";
  }));
}

TEST(StartUpTest, ADriverWithoutZooKeeperOrLeaderFails) {
  {
    SdkWorld world;
    world.WriteConf();
    testing::internal::CaptureStderr();
    EXPECT_EQ(world.Initialize(0), 1U);
    EXPECT_THAT(testing::internal::GetCapturedStderr(),
                HasSubstr("[Broadcast] Driver init zookeeper failed"));
  }
  ZookeeperServer zookeeper;
  common::Configuration::GetInstance()->Set("vyn.zookeeper.server.url", zookeeper.NewRoot());
  SdkWorld world;
  testing::internal::CaptureStderr();
  EXPECT_EQ(world.Initialize(0), 1U);
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              HasSubstr("[Broadcast] Driver get current meta leader info failed"));
}

TEST(StartUpTest, BeforeInitialisationNothingIsTouched) {
  SdkWorld world;
  unsigned long sizes[2] = {1, 2};
  bool registered = false;
  std::vector<std::string> none;
  std::vector<unsigned short> nodeIds;
  void* address = nullptr;
  EXPECT_EQ(CreateBroadcastVar("a", 1, 2), 2120011U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(), HasSubstr("Failed to get meta rpc cli as "));
  EXPECT_EQ(DeleteBroadcastVar("a", 1), 2000057U);
  EXPECT_EQ(MarkBroadcastApplicationCompleted("a"), 2000057U);
  EXPECT_EQ(GetRemoteNodeInfo("a", none, none, nodeIds, none, true), 2120011U);
  EXPECT_EQ(CreateBroadcastBlockBatch("a", 1, sizes, 2), 2000057U);
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("a", "t", 1, sizes, 2, "1.2.3.4:1", "h", 1, none), 2000057U);
  EXPECT_EQ(FetchBroadcastBlockBatch("a", 1, sizes), 2000057U);
  EXPECT_EQ(ObtainBroadcastBlockAddr("a", 1, 0, &address), 2000057U);
  EXPECT_EQ(RegisterBroadcastApp("a", true, nullptr, &registered), 2120001U);
  EXPECT_EQ(RegisterBroadcastApp("a b", true, "t", &registered), 2120001U);
  EXPECT_FALSE(registered);
  EXPECT_EQ(CheckMfNode(), 1U);
  EXPECT_EQ(BroadcastGetMetaLeaderIp(0), 2000057U);
  EXPECT_EQ(BroadcastUnregisterApp(nullptr), 2120001U);
  EXPECT_EQ(world.bm.script.CallCount(), 0U);
}

}  // namespace
}  // namespace vyn::test
