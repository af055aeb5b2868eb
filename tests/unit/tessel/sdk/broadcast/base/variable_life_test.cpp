// A variable's whole life in each role, and what happens when a step of it fails.

#include "common/util/system.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/sdk_world.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace vyn::test {
namespace {

using namespace tessel;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr unsigned long kSizes[] = {100, 50, 25};
const std::string kIdA(60, 'a');
const std::string kIdB(60, 'b');

/// A driver outside the fabric that is ready.
struct OutsideDriver {
  OutsideDriver() {
    world.AnswerMfNode(false, 0);
    world.WriteConf(ground.url);
    EXPECT_EQ(world.Initialize(0), 0U);
    world.meta.Clear();
  }
  std::uint32_t CreateRemote(std::vector<std::string>& ids, unsigned int count = 2) const {
    return CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, count, "10.9.8.7:3899", "host", 3, ids);
  }

  DriverGround ground;
  SdkWorld world;
};

TEST(VariableLifeTest, ADriverOnANodeOfTheFabric) {
  DriverGround ground;
  SdkWorld world;
  world.WriteConf(ground.url);
  ASSERT_EQ(world.Initialize(0), 0U);
  CapturedLog log;
  bool registered = false;
  ASSERT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  EXPECT_TRUE(registered);
  EXPECT_TRUE(log.Has(4, "g_shuffleServerRPCEngine is nullptr"));
  EXPECT_TRUE(log.Has(2, "[Broadcast] The successfully registered AppName is app"));
  EXPECT_EQ(g_mfNodeId, 9U);
  EXPECT_EQ(g_appToken, "tok");
  const auto registration = ReadAs<ApplicationRegisterRequest>(world.server.Requests()[0].body);
  EXPECT_EQ(registration->ns + registration->token + (registration->registerFlag ? "1" : "0"), "apptok1");
  EXPECT_EQ(RegisterBroadcastApp("app", true, "other", &registered), 0U);
  EXPECT_EQ(world.server.Count(ShuffleServer::APP_REGISTER), 1U);
  EXPECT_EQ(g_appToken, "tok");

  // A refused registration keeps the token, for the unregistration.
  world.server.Answer(ShuffleServer::APP_REGISTER, {2140007, ""});
  EXPECT_EQ(RegisterBroadcastApp("other", true, "kept", &registered), 1U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(),
              testing::StartsWith("Using AppName other to register Application error!"));
  EXPECT_EQ(g_appToken, "kept");
  g_appToken = "tok";
  NodeIdResponse accepted;
  accepted.nodeId = 9;
  world.server.Answer(ShuffleServer::APP_REGISTER, {0, BytesOf(accepted)});

  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_NEW, {2140013, ""});
  EXPECT_EQ(CreateBroadcastVar("app", 7, 2), 2060009U);
  EXPECT_STREQ(
      BroadcastGetLastErrorMessage(),
      "Failed to create broadcast variable { appID: app, broadcastId: 7 as rpc request return error.");
  EXPECT_TRUE(log.Has(1, "Broadcast SDK exit function<broadcast_var_create>"));
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_NEW, {0, ""});
  ASSERT_EQ(CreateBroadcastVar("app", 9, 0), 0U) << "the count is the service's affair";
  EXPECT_EQ(ReadAs<BroadcastVar>(world.meta.Requests().back().body)->blockNum, 0U);
  ASSERT_EQ(DeleteBroadcastVar("app", 9), 0U) << "never cached, and the service is asked all the same";
  EXPECT_EQ(world.meta.Requests().back().opcode, ShuffleMeta::BROADCAST_VAR_REMOVE);
  EXPECT_EQ(ReadAs<BroadcastVar>(world.meta.Requests().back().body)->broadcastId, 9U);
  world.meta.Clear();
  ASSERT_EQ(CreateBroadcastVar("app", 7, 2), 0U);
  EXPECT_TRUE(
      log.Has(1, "Broadcast SDK enter function<CreateBroadcastVar> appID: app broadcastId: 7 block num: 2"));
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, {0, SdkWorld::Blocks("app", 7, 9)});
  ASSERT_EQ(CreateBroadcastBlockBatch("app", 7, kSizes, 2), 0U);
  const auto batch = ReadAs<BroadcastBlockBatch>(world.server.Requests().back().body);
  EXPECT_THAT(batch->sizes, ElementsAre(100, 50));
  const auto record = ReadAs<BroadcastBlockInfo>(world.meta.Requests().back().body);
  EXPECT_EQ(world.meta.Requests().back().opcode, ShuffleMeta::BROADCAST_VAR_INFO_ADD);
  EXPECT_THAT(record->bmIds, ElementsAre(kIdA, kIdB));
  EXPECT_EQ(record->nodeId, 9U);

  void* address = nullptr;
  ASSERT_EQ(ObtainBroadcastBlockAddr("app", 7, 1, &address), 0U);
  EXPECT_THAT(world.bm.script.Calls("BM_MapSec")[0], HasSubstr(kIdB));
  ASSERT_EQ(ReleaseBroadcastBlockAddr("app", 7, 1, address), 0U);

  // What the server or the service refuses comes back under its status.
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 7, nullptr, 0), 1U) << "no blocks";
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, {2100041, ""});
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 8, kSizes, 2), 1U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(),
               "Failed to batch create blocks for broadcast variable { appId: app, broadcastId: 8 }");
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, {0, SdkWorld::Blocks("app", 8, 9)});
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_INFO_ADD, {2140011, ""});
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 8, kSizes, 2), 2060009U);
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("app-8") == nullptr) << "nothing is taken back";

  // On a node of the fabric the nodes are this one, one entry in each list.
  std::vector<std::string> refused{"x"};
  std::vector<unsigned short> noIds;
  world.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {2140003, ""});
  EXPECT_EQ(GetRemoteNodeInfo("app", refused, refused, noIds, refused, true), 2120013U);
  EXPECT_TRUE(refused.empty());
  BroadcastRemoteNodeRsp unused;
  world.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(unused)});
  std::vector<std::string> candidates{"x"};
  std::vector<std::string> nodes;
  std::vector<std::string> hosts;
  std::vector<unsigned short> ids;
  ASSERT_EQ(GetRemoteNodeInfo("app", candidates, nodes, ids, hosts, true), 0U);
  EXPECT_TRUE(candidates.empty());
  EXPECT_THAT(nodes, ElementsAre("127.0.0.1:9999"));
  EXPECT_THAT(ids, ElementsAre(9));
  EXPECT_THAT(hosts, ElementsAre(common::VynGetHostname()));

  // The end: the entry goes before the call, whatever comes of it.
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_REMOVE, {2140011, ""});
  EXPECT_EQ(DeleteBroadcastVar("app", 7), 2060009U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(),
               "Failed to remove broadcast variable: 7 as get meta rpc cli error.");
  EXPECT_EQ(ObtainBroadcastBlockAddr("app", 7, 0, &address), 2120013U);
  world.server.Answer(ShuffleServer::APP_UNREGISTER, {2140007, ""});
  EXPECT_EQ(UnRegisterBroadcastApp("app"), 1U);
  EXPECT_THAT(BroadcastGetLastErrorMessage(),
              testing::StartsWith("Using AppName app to unregister application error!"
                                  "Failed to unregister app as "));
  EXPECT_EQ(g_appToken, "");
  EXPECT_EQ(RegisterBroadcastApp("app", true, "new", &registered), 0U) << "still registered here, no call";
  EXPECT_EQ(g_appToken, "");
  g_broadcastCache->InsertVarInfo("app-8", {kIdA}, {1});
  g_broadcastCache->InsertVarInfo("app2-1", {kIdA}, {1});
  g_broadcastCache->InsertVarInfo("b-1", {kIdA}, {1});
  world.meta.Answer(ShuffleMeta::APP_REMOVE, {2140017, ""});
  EXPECT_EQ(MarkBroadcastApplicationCompleted("app"), 2120013U);
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("app-8") == nullptr);
  world.meta.Answer(ShuffleMeta::APP_REMOVE, {0, ""});
  EXPECT_EQ(MarkBroadcastApplicationCompleted("app"), 0U);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("app-8") == nullptr);
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("app2-1") == nullptr) << "by prefix";
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("b-1") == nullptr);
  EXPECT_EQ(RegisterBroadcastApp("app", true, "new", &registered), 0U);
  EXPECT_EQ(g_appToken, "new");
}

TEST(VariableLifeTest, AnExecutorFetchesOnceAndReadsInPlace) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  CapturedLog log;
  bool registered = false;
  ASSERT_EQ(RegisterBroadcastApp("app", false, "", &registered), 0U);
  unsigned long sizes[2] = {0, 0};
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {2140011, ""});
  EXPECT_EQ(FetchBroadcastBlockBatch("app", 7, sizes), 1U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(),
               "Failed to batch fetch blocks for broadcast variable { appId: app, broadcastId: 7 }");
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {0, SdkWorld::Blocks("app", 7, 9)});
  world.server.Clear();
  ASSERT_EQ(FetchBroadcastBlockBatch("app", 7, sizes), 0U);
  EXPECT_THAT(sizes, ElementsAre(100, 50));
  sizes[0] = 0;
  ASSERT_EQ(FetchBroadcastBlockBatch("app", 7, sizes), 0U);
  EXPECT_THAT(sizes, ElementsAre(100, 50));
  EXPECT_EQ(world.server.Requests().size(), 1U) << "the second fetch makes no call";
  EXPECT_TRUE(log.Has(2, "Local cached, broadcastID 7"));
  void* address = nullptr;
  EXPECT_EQ(ObtainBroadcastBlockAddr("app", 7, 0, &address), 0U);
}

TEST(VariableLifeTest, AVariableIsDeletedWhileOtherThreadsObtainItsBlocks) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {0, SdkWorld::Blocks("app", 7, 9)});
  const CapturedLog silence(5);  // every miss is a line
  std::atomic<bool> ending{false};
  std::atomic<int> obtained{0};
  std::atomic<int> missed{0};
  std::vector<std::jthread> readers;
  for (int i = 0; i < 3; ++i) {
    readers.emplace_back([&] {
      while (!ending) {
        void* address = &ending;
        const auto status = ObtainBroadcastBlockAddr("app", 7, 1, &address);
        EXPECT_TRUE(status == 0 ? address != nullptr : status == 2120013 && address == nullptr) << status;
        ++(status == 0 ? obtained : missed);
        if (status == 0) {
          EXPECT_EQ(ReleaseBroadcastBlockAddr("app", 7, 1, address), 0U);
        }
      }
    });
  }
  unsigned long sizes[2];
  EXPECT_TRUE(WaitUntil([&] {
    const int before = obtained;
    EXPECT_EQ(FetchBroadcastBlockBatch("app", 7, sizes), 0U);
    EXPECT_TRUE(WaitUntil([&] { return obtained > before; }));
    EXPECT_EQ(DeleteBroadcastVar("app", 7), 0U);
    return obtained > 100 && missed > 100;
  }));
  ending = true;
}

TEST(VariableLifeTest, ADriverOutsideTheFabric) {
  OutsideDriver driver;
  CapturedLog log;
  bool registered = true;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  EXPECT_FALSE(registered);
  EXPECT_EQ(g_appToken, "");
  EXPECT_TRUE(log.Has(3, "This is not a MF node and do not support register application operation."));

  BroadcastRemoteNodeRsp answer;
  answer.selectedNodes = {"10.9.8.7:3899"};
  answer.nodeIds = {3};
  answer.hostNames = {"host"};
  driver.world.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(answer)});
  std::vector<std::string> candidates{"10.9.8.7"};
  std::vector<std::string> nodes{"old"};
  std::vector<std::string> hosts{"old"};
  std::vector<unsigned short> nodeIds{1, 2};
  ASSERT_EQ(GetRemoteNodeInfo("app", candidates, nodes, nodeIds, hosts, true), 0U);
  const auto asked = ReadAs<BroadcastRemoteNodeReq>(driver.world.meta.Requests().back().body);
  EXPECT_THAT(asked->candidateNodes, ElementsAre("10.9.8.7"));
  EXPECT_TRUE(asked->selectFlag);
  EXPECT_THAT(nodes, ElementsAre("10.9.8.7:3899"));
  EXPECT_THAT(nodeIds, ElementsAre(3));
  EXPECT_THAT(hosts, ElementsAre("host"));

  std::vector<std::string> ids;
  ASSERT_EQ(driver.CreateRemote(ids), 0U);
  auto& script = driver.world.bm.script;
  EXPECT_THAT(script.Calls("BM_CreateLink"), ElementsAre(Joined(3, "host", "10.9.8.7", 3899, 0)));
  EXPECT_THAT(script.Calls("BM_CreateNSSec"), ElementsAre(Joined(3, "", "app", 0, "tok")));
  EXPECT_THAT(script.Calls("BM_AllocSec"),
              ElementsAre(Joined("app", "tok", 100, 16, 3), Joined("app", "tok", 50, 16, 3)));
  ASSERT_EQ(ids.size(), 2U);
  EXPECT_EQ(ids[0], std::string(60, 'n') + std::string(4, '\0'));
  const auto record = ReadAs<BroadcastBlockInfo>(driver.world.meta.Requests().back().body);
  EXPECT_EQ(record->nodeId, 3U);
  EXPECT_EQ(record->bmIds, ids);
  EXPECT_THAT(record->sizes, ElementsAre(100, 50));
  const char data[100] = {};
  EXPECT_EQ(WriteRemoteBlock("app", ids[0].c_str(), data, 100, "tok"), 0U);
  EXPECT_EQ(script.Calls("BM_WriteSec").size(), 1U);
}

TEST(VariableLifeTest, FailuresOfTheRemoteFormAndWhatTheyTakeBack) {
  OutsideDriver driver;
  auto& script = driver.world.bm.script;
  std::vector<std::string> ids{"kept"};
  struct Row {
    const char* function;
    std::vector<int> results;
    std::uint32_t status;
    const char* words;
    std::size_t destroyed;
  };
  for (const Row& row :
       std::vector<Row>{{"BM_CreateLink", {-5}, 2120025, "Failed to create link to 10.9.8.7:3899, ret=-5", 0},
                        {"BM_CreateNSSec",
                         {22},
                         2120023,
                         "Error to create namespace app as Failed to create namespace, the parameter "
                         "namespace is invalid.",
                         0},
                        {"BM_AllocSec",  // the third block; the namespace takes the other two with it
                         {0, 0, -5},
                         2120027,
                         "Error to allocate BM on 10.9.8.7 remotely for broadcast variable app-7",
                         1}}) {
    script.Clear();
    driver.world.meta.Clear();
    script.ExpectResults(row.function, row.results);
    EXPECT_EQ(driver.CreateRemote(ids, 3), row.status);
    EXPECT_STREQ(BroadcastGetLastErrorMessage(), row.words);
    EXPECT_TRUE(script.Calls("BM_BatchFreeSec").empty()) << row.function;
    EXPECT_EQ(script.Calls("BM_DestroyNSSec").size(), row.destroyed) << row.function;
    EXPECT_TRUE(driver.world.meta.Requests().empty()) << row.function;
    EXPECT_THAT(ids, ElementsAre("kept")) << row.function;
    EXPECT_TRUE(g_broadcastCache->GetVarInfo("app-7") == nullptr) << row.function;
  }
  // An address is refused before anything is touched.
  script.Clear();
  for (const auto& [node, status] : std::vector<std::pair<const char*, std::uint32_t>>{
           {"10.9.8.7", 2000039}, {"10.9.8.7:x", 2000039}, {"10.9.8.7:32768", 2000013}}) {
    EXPECT_EQ(CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, 2, node, "host", 3, ids), status)
        << node;
  }
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, 2, nullptr, "host", 3, ids), 2120001U);
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("app", "tok", 7, nullptr, 2, "10.9.8.7:1", "host", 3, ids),
            2120001U);
  EXPECT_EQ(script.CallCount(), 0U);

  // Once the metadata service has been asked nothing is taken back, and the caller has the ids.
  driver.world.meta.Answer(ShuffleMeta::BROADCAST_VAR_INFO_ADD, {2140011, ""});
  EXPECT_EQ(driver.CreateRemote(ids), 2060009U);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "Failed to add block infos to meta.");
  EXPECT_EQ(ids.size(), 2U);
  EXPECT_FALSE(g_broadcastCache->GetVarInfo("app-7") == nullptr);
  EXPECT_TRUE(script.Calls("BM_DestroyNSSec").empty());

  // One batch of all ids takes blocks back.
  EXPECT_EQ(BmFreeForBlockRemotely("app", "tok", ids), 0U);
  ASSERT_EQ(script.Calls("BM_BatchFreeSec").size(), 1U);
  EXPECT_THAT(script.Calls("BM_BatchFreeSec")[0], testing::EndsWith("|2|16|app|tok"));

  // No blocks: an entry and a record without any.
  driver.world.meta.Answer(ShuffleMeta::BROADCAST_VAR_INFO_ADD, {0, ""});
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("app", "tok", 8, nullptr, 0, "10.9.8.7:3899", "host", 3, ids),
            0U);
  EXPECT_TRUE(ids.empty());
  EXPECT_TRUE(ReadAs<BroadcastBlockInfo>(driver.world.meta.Requests().back().body)->bmIds.empty());
  EXPECT_TRUE(g_broadcastCache->GetVarInfo("app-8")->mRawAddrs.empty());
}

TEST(VariableLifeTest, AFullPoolIsWaitedForAThousandTimesABlock) {
  OutsideDriver driver;
  FakeClock clock;
  auto& script = driver.world.bm.script;
  std::vector<std::string> ids;
  script.ExpectResults("BM_AllocSec", std::vector<int>(999, -79999));
  script.ExpectResults("BM_AllocSec", {0});
  script.ExpectResults("BM_AllocSec", std::vector<int>(999, -79999));
  EXPECT_EQ(driver.CreateRemote(ids), 0U) << "each block has its own attempts";
  EXPECT_EQ(script.Calls("BM_AllocSec").size(), 2000U);
  EXPECT_EQ(clock.Sleeps().size(), 1998U);
  EXPECT_EQ(clock.Sleeps()[0], std::chrono::milliseconds(10));

  script.Clear();
  const std::size_t slept = clock.Sleeps().size();
  script.ExpectResults("BM_AllocSec", std::vector<int>(1000, -79999));
  CapturedLog log;
  EXPECT_EQ(driver.CreateRemote(ids), 2120027U);
  EXPECT_EQ(script.Calls("BM_AllocSec").size(), 1000U);
  EXPECT_EQ(clock.Sleeps().size() - slept, 999U) << "nobody sleeps after the last attempt";
  EXPECT_TRUE(log.Has(4, "Error to create broadcast block as out of memory"));
}

}  // namespace
}  // namespace vyn::test
