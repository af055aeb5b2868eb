// A variable's whole life in each role: every step fails first and then succeeds.

#include "common/util/system.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/sdk_world.h"
#include "support/test.h"
#include "support/wait_until.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"

namespace vyn::test {
namespace {

using namespace tessel;
using testing::ElementsAre;

constexpr unsigned long kSizes[] = {100, 50, 25};

/// A call that asks a service. Where a service refuses, the caller gets `failed`.
struct Step {
  const char* name;
  ScriptedService& service;
  unsigned int opcode;
  std::string reply;
  std::function<std::uint32_t()> call;
  std::uint32_t failed;
  std::function<void()> afterFailure = [] {};
};

/// Makes the step, first refused and then answered. Returns: the body of its last request.
std::string Make(const Step& step) {
  SCOPED_TRACE(step.name);
  for (const bool refused : {true, false}) {
    step.service.Clear();
    step.service.Answer(step.opcode, {refused ? 2140011U : 0U, refused ? "" : step.reply});
    EXPECT_EQ(step.call(), refused ? step.failed : 0U);
    EXPECT_EQ(step.service.Count(step.opcode), 1U);
    if (refused) {
      EXPECT_STRNE(BroadcastGetLastErrorMessage(), nullptr);
      step.afterFailure();
    }
  }
  return step.service.Requests().back().body;
}

bool Known(const char* name) { return g_broadcastCache->GetVarInfo(name) != nullptr; }

TEST(VariableLifeTest, ADriverOnANodeOfTheFabric) {
  DriverGround ground;
  SdkWorld world;
  world.WriteConf(ground.url);
  ASSERT_EQ(world.Initialize(0), 0U);
  const CapturedLog silence(5);
  bool registered = false;
  NodeIdResponse node;
  node.nodeId = 9;
  const auto enter = [&] { return RegisterBroadcastApp("app", true, "tok", &registered); };
  const auto registration = ReadAs<ApplicationRegisterRequest>(
      Make({"register", world.server, ShuffleServer::APP_REGISTER, BytesOf(node), enter, 1,
            [] { EXPECT_EQ(g_appToken, "tok") << "for the unregistration"; }}));
  EXPECT_EQ(registration->ns + registration->token + (registration->registerFlag ? "1" : "0"), "apptok1");
  EXPECT_TRUE(registered);
  EXPECT_EQ(g_mfNodeId, 9U);
  EXPECT_EQ(RegisterBroadcastApp("app", true, "other", &registered), 0U);
  EXPECT_EQ(world.server.Count(ShuffleServer::APP_REGISTER), 1U) << "once";
  EXPECT_EQ(g_appToken, "tok");

  const auto create = [] { return CreateBroadcastVar("app", 7, 2); };
  const auto variable =
      ReadAs<BroadcastVar>(Make({"create", world.meta, ShuffleMeta::BROADCAST_VAR_NEW, "", create, 2060009}));
  EXPECT_EQ(variable->appId + "-" + std::to_string(variable->broadcastId), "app-7");
  EXPECT_EQ(variable->blockNum, 2U);
  const auto blocks = [] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); };
  const auto batch = ReadAs<BroadcastBlockBatch>(
      Make({"blocks", world.server, ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE,
            SdkWorld::Blocks("app", 7, 9), blocks, 1, [] { EXPECT_FALSE(Known("app-7")); }}));
  EXPECT_THAT(batch->sizes, ElementsAre(100, 50));
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 7, nullptr, 0), 1U) << "no blocks";
  const auto record = ReadAs<BroadcastBlockInfo>(
      Make({"record", world.meta, ShuffleMeta::BROADCAST_VAR_INFO_ADD, "", blocks, 2060009,
            [] { EXPECT_TRUE(Known("app-7")) << "nothing is taken back"; }}));
  EXPECT_THAT(record->bmIds, ElementsAre(std::string(60, 'a'), std::string(60, 'b')));
  EXPECT_EQ(record->nodeId, 9U);
  void* address = nullptr;
  ASSERT_EQ(ObtainBroadcastBlockAddr("app", 7, 1, &address), 0U);
  ASSERT_EQ(ReleaseBroadcastBlockAddr("app", 7, 1, address), 0U);

  // On a node of the fabric the nodes are this one, one entry in each list.
  std::vector<std::string> candidates{"x"};
  std::vector<std::string> nodes;
  std::vector<std::string> hosts;
  std::vector<unsigned short> ids;
  BroadcastRemoteNodeRsp unused;
  const auto select = [&] { return GetRemoteNodeInfo("app", candidates, nodes, ids, hosts, true); };
  Make({"nodes", world.meta, ShuffleMeta::BROADCAST_REMOTE_NODE_GET, BytesOf(unused), select, 2120013,
        [&] { EXPECT_TRUE(candidates.empty()); }});
  EXPECT_THAT(nodes, ElementsAre("127.0.0.1:9999"));
  EXPECT_THAT(ids, ElementsAre(9));
  EXPECT_THAT(hosts, ElementsAre(common::VynGetHostname()));

  const auto remove = [] { return DeleteBroadcastVar("app", 7); };
  const auto removed =
      ReadAs<BroadcastVar>(Make({"delete", world.meta, ShuffleMeta::BROADCAST_VAR_REMOVE, "", remove, 2060009,
                                 [] { EXPECT_FALSE(Known("app-7")) << "whatever comes of the call"; }}));
  EXPECT_EQ(removed->broadcastId, 7U) << "asked also when nothing is known here";
  for (const char* name : {"app-8", "app2-1", "b-1"}) {
    g_broadcastCache->InsertVarInfo(name, {"id"}, {1});
  }
  const auto complete = [] { return MarkBroadcastApplicationCompleted("app"); };
  const auto leave = [] { return UnRegisterBroadcastApp("app"); };
  Make({"unregister", world.server, ShuffleServer::APP_UNREGISTER, "", leave, 1,
        [] { EXPECT_EQ(g_appToken, ""); }});
  EXPECT_EQ(RegisterBroadcastApp("app", true, "new", &registered), 0U) << "still registered here, no call";
  EXPECT_EQ(g_appToken, "");
  Make({"complete", world.meta, ShuffleMeta::APP_REMOVE, "", complete, 2120013,
        [] { EXPECT_TRUE(Known("app-8")); }});
  EXPECT_FALSE(Known("app-8") || Known("app2-1")) << "by the beginning of the name";
  EXPECT_TRUE(Known("b-1"));
  EXPECT_EQ(RegisterBroadcastApp("app", true, "new", &registered), 0U);
  EXPECT_EQ(g_appToken, "new");
}

TEST(VariableLifeTest, AnExecutorFetchesOnceAndReadsWhileOtherThreadsDelete) {
  SdkWorld world;
  world.WriteConf();
  ASSERT_EQ(world.Initialize(1), 0U);
  const CapturedLog silence(5);  // every miss is a line
  unsigned long sizes[2] = {0, 0};
  const auto fetch = [&] { return FetchBroadcastBlockBatch("app", 7, sizes); };
  Make({"fetch", world.server, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, SdkWorld::Blocks("app", 7, 9),
        fetch, 1, [] { EXPECT_FALSE(Known("app-7")); }});
  EXPECT_THAT(sizes, ElementsAre(100, 50));
  sizes[0] = 0;
  EXPECT_EQ(fetch(), 0U);
  EXPECT_THAT(sizes, ElementsAre(100, 50));
  EXPECT_EQ(world.server.Requests().size(), 1U) << "the second fetch makes no call";

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
  EXPECT_TRUE(WaitUntil([&] {
    const int before = obtained;
    EXPECT_EQ(fetch(), 0U);
    EXPECT_TRUE(WaitUntil([&] { return obtained > before; }));
    EXPECT_EQ(DeleteBroadcastVar("app", 7), 0U);
    return obtained > 100 && missed > 100;
  }));
  ending = true;
}

/// A driver outside the fabric that is ready.
class OutsideDriver : public testing::Test {
 protected:
  OutsideDriver() {
    mWorld.AnswerMfNode(false, 0);
    mWorld.WriteConf(mGround.url);
    EXPECT_EQ(mWorld.Initialize(0), 0U);
  }
  std::uint32_t CreateRemote(unsigned int count = 2, const char* node = "10.9.8.7:3899") {
    return CreateBroadcastBlockBatchRemote("app", "tok", 7, count == 0 ? nullptr : kSizes, count, node,
                                           "host", 3, mIds);
  }

  DriverGround mGround;
  SdkWorld mWorld;
  BmScript& mScript = mWorld.bm.script;
  std::vector<std::string> mIds{"kept"};
};

TEST_F(OutsideDriver, PlacesItsBlocksOnAChosenNode) {
  bool registered = true;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  EXPECT_FALSE(registered);
  EXPECT_EQ(g_appToken, "");

  BroadcastRemoteNodeRsp answer;
  answer.selectedNodes = {"10.9.8.7:3899"};
  answer.nodeIds = {3};
  answer.hostNames = {"host"};
  mWorld.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(answer)});
  std::vector<std::string> candidates{"10.9.8.7"};
  std::vector<std::string> nodes{"old"};
  std::vector<std::string> hosts{"old"};
  std::vector<unsigned short> nodeIds{1, 2};
  ASSERT_EQ(GetRemoteNodeInfo("app", candidates, nodes, nodeIds, hosts, true), 0U);
  const auto asked = ReadAs<BroadcastRemoteNodeReq>(mWorld.meta.Requests().back().body);
  EXPECT_THAT(asked->candidateNodes, ElementsAre("10.9.8.7"));
  EXPECT_TRUE(asked->selectFlag);
  EXPECT_TRUE(nodes == answer.selectedNodes && nodeIds == answer.nodeIds && hosts == answer.hostNames);

  const auto create = [this] { return CreateRemote(); };
  const auto record = ReadAs<BroadcastBlockInfo>(
      Make({"record", mWorld.meta, ShuffleMeta::BROADCAST_VAR_INFO_ADD, "", create, 2060009, [this] {
              EXPECT_EQ(mIds.size(), 2U) << "once the service has been asked nothing is taken back";
              EXPECT_TRUE(Known("app-7") && mScript.Calls("BM_DestroyNSSec").empty());
              mScript.Clear();
            }}));
  EXPECT_THAT(mScript.Calls("BM_CreateLink"), ElementsAre(Joined(3, "host", "10.9.8.7", 3899, 0)));
  EXPECT_THAT(mScript.Calls("BM_CreateNSSec"), ElementsAre(Joined(3, "", "app", 0, "tok")));
  EXPECT_THAT(mScript.Calls("BM_AllocSec"),
              ElementsAre(Joined("app", "tok", 100, 16, 3), Joined("app", "tok", 50, 16, 3)));
  EXPECT_EQ(mIds[0], std::string(60, 'n') + std::string(4, '\0'));
  EXPECT_EQ(record->nodeId, 3U);
  EXPECT_EQ(record->bmIds, mIds);
  EXPECT_THAT(record->sizes, ElementsAre(100, 50));
  EXPECT_EQ(BmFreeForBlockRemotely("app", "tok", mIds), 0U);
  EXPECT_THAT(mScript.Calls("BM_BatchFreeSec"), ElementsAre(testing::EndsWith("|2|16|app|tok")));

  EXPECT_EQ(CreateRemote(0), 0U) << "no blocks: an entry and a record without any";
  EXPECT_TRUE(mIds.empty());
  EXPECT_TRUE(ReadAs<BroadcastBlockInfo>(mWorld.meta.Requests().back().body)->bmIds.empty());
}

TEST_F(OutsideDriver, WhatFailsBeforeTheRecordIsTakenBack) {
  mWorld.meta.Clear();
  struct Row {
    const char* function;
    std::vector<int> results;
    std::uint32_t status;
    std::size_t freed;  ///< batches of blocks; the namespace stays, it has earlier variables
  };
  for (const Row& row : std::vector<Row>{{"BM_CreateLink", {-5}, 2120025, 0},
                                         {"BM_CreateNSSec", {22}, 2120023, 0},
                                         {"BM_AllocSec", {-5}, 2120027, 0},
                                         {"BM_AllocSec", {0, 0, -5}, 2120027, 1}}) {
    SCOPED_TRACE(row.function);
    mScript.Clear();
    mScript.ExpectResults(row.function, row.results);
    EXPECT_EQ(CreateRemote(3), row.status);
    EXPECT_EQ(mScript.Calls("BM_BatchFreeSec").size(), row.freed);
    EXPECT_TRUE(mScript.Calls("BM_DestroyNSSec").empty());
    EXPECT_THAT(mIds, ElementsAre("kept"));
    EXPECT_FALSE(Known("app-7"));
  }
  mScript.Clear();
  for (const auto& [node, status] : std::vector<std::pair<const char*, std::uint32_t>>{
           {"10.9.8.7", 2000039}, {"10.9.8.7:x", 2000039}, {"10.9.8.7:32768", 2000013}, {nullptr, 2120001}}) {
    EXPECT_EQ(CreateRemote(2, node), status);
  }
  EXPECT_EQ(CreateBroadcastBlockBatchRemote("app", "tok", 7, nullptr, 2, "10.9.8.7:1", "host", 3, mIds),
            2120001U);
  EXPECT_EQ(mScript.CallCount() + mWorld.meta.Requests().size(), 0U);
}

TEST_F(OutsideDriver, AFullPoolIsWaitedForAThousandTimesABlock) {
  FakeClock clock;
  mScript.ExpectResults("BM_AllocSec", std::vector<int>(999, -79999));
  mScript.ExpectResults("BM_AllocSec", {0});
  mScript.ExpectResults("BM_AllocSec", std::vector<int>(999, -79999));
  EXPECT_EQ(CreateRemote(), 0U) << "each block has its own attempts";
  EXPECT_EQ(mScript.Calls("BM_AllocSec").size(), 2000U);
  EXPECT_EQ(clock.Sleeps().size(), 1998U);
  EXPECT_EQ(clock.Sleeps()[0], std::chrono::milliseconds(10));

  mScript.Clear();
  mScript.ExpectResults("BM_AllocSec", std::vector<int>(1000, -79999));
  EXPECT_EQ(CreateRemote(), 2120027U);
  EXPECT_EQ(mScript.Calls("BM_AllocSec").size(), 1000U);
  EXPECT_EQ(clock.Sleeps().size(), 1998U + 999) << "nobody sleeps after the last attempt";
}

}  // namespace
}  // namespace vyn::test
