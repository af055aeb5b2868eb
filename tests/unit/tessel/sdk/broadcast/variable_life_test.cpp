// A variable's whole life in each role: the steps fail first and then succeed.

#include "common/util/system.h"
#include "platform/fabric/protocol/results.h"
#include "support/client/sdk_world.h"
#include "vyn/variable.h"

namespace vyn::test {
namespace {

using namespace tessel;
using testing::ElementsAre;
using Call = std::function<std::uint32_t()>;

constexpr unsigned long kSizes[] = {100, 50, 25};

/// Makes a call that asks a service, which refuses first and then answers. Returns: the body of the last request.
/// \param failed what the caller gets of the refusal. \param then holds behind it.
std::string Make(
    ScriptedService& service, unsigned int opcode, const std::string& reply, const Call& call,
    std::uint32_t failed, const std::function<bool()>& then = [] { return true; }) {
  SCOPED_TRACE(opcode);
  for (const bool refused : {true, false}) {
    service.Clear();
    service.Answer(opcode, {refused ? 2140011U : 0U, refused ? "" : reply});
    EXPECT_EQ(call(), refused ? failed : 0U);
    EXPECT_EQ(service.Count(opcode), 1U);
    EXPECT_TRUE(!refused || then());
  }
  return service.Requests().back().body;
}

bool Known(const char* name) { return g_broadcastCache->GetVarInfo(name) != nullptr; }

TEST(VariableLifeTest, AFailedLookUpIsLoggedOnceForItsCaller) {
  DriverWorld world;
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_GET, {2140011, ""});
  const CapturedLog log;
  EXPECT_EQ(VynVariableStat("app", 7, nullptr), 2140011U);
  EXPECT_EQ(Joined(log.Texts(3).size(), log.Texts(4).size()), "0|1");
}

TEST(VariableLifeTest, FailuresGetTheStatusAndTextOfTheHeader) {
  DriverWorld world;
  const CapturedLog silence(5);
  const auto open = [](VynVariable** out) { return VynVariableOpen("app", 7, out); };
  VynVariable* variable = nullptr;
  VynVariableInfo info{};
  EXPECT_EQ(open(&variable), 2140005U) << "not registered";
  bool registered = false;
  ASSERT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  for (const unsigned int answer :
       {2140005U, 2140007U, 2140011U, 2140013U, 2140015U, 2140027U, 2140033U, 2140035U, 2140099U}) {
    const unsigned int told = answer < 2140033 ? answer : answer < 2140099 ? 2120007 : 2060009;
    world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {answer, ""});
    EXPECT_EQ(open(&variable), told) << answer;
  }
  world.server.Answer(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, {0, SdkWorld::Blocks()});
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_GET, {0, SdkWorld::Blocks()});
  for (const int result : {-EACCES, kBmNotEnoughCapacity, -ENOENT, -ERANGE, -EBADMSG, -EIO}) {
    const unsigned int told = result == -EACCES                ? 2140007
                              : result == kBmNotEnoughCapacity ? 2100041
                                                               : 2120007;
    world.bm.script.Expect("BM_ReadSec", {result});
    EXPECT_EQ(open(&variable), told) << result;
  }
  world.bm.script.Expect("BM_ReadSec", {-ENOENT});  // of the blocks that were deleted meanwhile
  world.meta.Answer(ShuffleMeta::BROADCAST_VAR_GET, {0, SdkWorld::Blocks("app", 7, 9, 'c')});
  ASSERT_EQ(open(&variable), 0U);
  EXPECT_THAT(world.bm.script.Calls("BM_ReadSec").back(), testing::StartsWith(std::string(60, 'd')));
  EXPECT_THAT(
      (std::vector{open(nullptr), VynVariableStat("app", 7, &info), VynVariableFlush(variable, 0, 1)}),
      testing::Each(2120001));
  info.structSize = sizeof(info);
  EXPECT_EQ(VynVariableStat("app", 7, &info), 0U);
  EXPECT_EQ(Joined(info.size, info.blocks, info.nodeId), "150|2|9");
  VynVariableClose(variable);
}

TEST(VariableLifeTest, CreateGivesUpAClaimWhoseOutcomeIsUnknownAndLeavesItsBlocksToTheNodeIfItCannot) {
  DriverWorld world(false);
  const CapturedLog silence(5);
  bool registered = false;
  ASSERT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  BroadcastRemoteNodeRsp nodes;
  nodes.nodeIds = {3};
  nodes.selectedNodes = {"10.9.8.7:3899"};
  for (const auto& [answer, status, tries, left, freed] :
       {std::tuple(2140037U, VYN_VARIABLE_NO_SERVICE, 4U, -1, 1U),  // a node has not forgotten the number
        std::tuple(2140013U, VYN_VARIABLE_EXISTS, 1U, -1, 1U),
        std::tuple(2140001U, VYN_VARIABLE_EXISTS, 1U, -1, 1U),     // an older leader, asked in the older way
        std::tuple(2140017U, VYN_VARIABLE_NO_SERVICE, 1U, 0, 1U),  // ZooKeeper may have written it
        std::tuple(2140017U, VYN_VARIABLE_NO_SERVICE, 1U, 2140017, 0U)}) {
    SCOPED_TRACE(answer);
    world.meta.Clear();
    world.bm.script.Clear();
    world.meta.Answer(ShuffleMeta::BROADCAST_VAR_GET, {2140011, ""});
    world.meta.Answer(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, {0, BytesOf(nodes)});
    world.meta.Answer(ShuffleMeta::BROADCAST_VAR_CLAIM, {answer, ""});
    world.meta.Answer(ShuffleMeta::BROADCAST_VAR_NEW, {2140013, ""});
    world.meta.Answer(ShuffleMeta::BROADCAST_VAR_GIVE_UP, {static_cast<std::uint32_t>(left), ""});
    VynVariable* variable = nullptr;
    EXPECT_EQ(VynVariableCreate("app", 7, 10, &variable), std::uint32_t{status});
    EXPECT_EQ(world.meta.Count(ShuffleMeta::BROADCAST_VAR_CLAIM), tries);
    EXPECT_EQ(world.meta.Count(ShuffleMeta::BROADCAST_VAR_GIVE_UP), left < 0 ? 0U : 1U);
    EXPECT_EQ(world.bm.script.Calls("BM_BatchFreeSec").size(), freed);
    EXPECT_EQ(world.meta.Count(ShuffleMeta::BROADCAST_VAR_NEW), answer == 2140001U ? 1U : 0U);
  }
}

TEST(VariableLifeTest, ADriverOnAFabricNodeCreatesAndRemovesAVariable) {
  DriverWorld world;
  ScriptedService& server = world.server;
  ScriptedService& meta = world.meta;
  const CapturedLog silence(5);
  bool registered = false;
  NodeIdResponse node;
  node.nodeId = 9;
  const auto enter = [&] { return RegisterBroadcastApp("app", true, "tok", &registered); };
  Make(server, ShuffleServer::APP_REGISTER, BytesOf(node), enter, 1, [] { return g_appToken == "tok"; });
  EXPECT_EQ(Joined(registered, g_mfNodeId), "1|9");
  EXPECT_EQ(RegisterBroadcastApp("app", true, "other", &registered), 0U);
  EXPECT_EQ(Joined(server.Count(ShuffleServer::APP_REGISTER), g_appToken), "1|tok") << "once";

  const auto create = [] { return CreateBroadcastVar("app", 7, 2); };
  Make(meta, ShuffleMeta::BROADCAST_VAR_NEW, "", create, 2060009);
  const auto blocks = [] { return CreateBroadcastBlockBatch("app", 7, kSizes, 2); };
  Make(server, ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, SdkWorld::Blocks(), blocks, 1,
       [] { return !Known("app-7"); });
  Make(meta, ShuffleMeta::BROADCAST_VAR_INFO_ADD, "", blocks, 2060009, [] { return Known("app-7"); });
  EXPECT_EQ(CreateBroadcastBlockBatch("app", 7, nullptr, 0), 1U) << "no blocks";

  // On a node of the fabric the nodes are this one, one entry in each list.
  std::vector<std::string> candidates{"x"};
  std::vector<std::string> nodes;
  std::vector<std::string> hosts;
  std::vector<unsigned short> ids;
  BroadcastRemoteNodeRsp unused;
  const auto select = [&] { return GetRemoteNodeInfo("app", candidates, nodes, ids, hosts, true); };
  Make(meta, ShuffleMeta::BROADCAST_REMOTE_NODE_GET, BytesOf(unused), select, 2120013);
  EXPECT_THAT(nodes, ElementsAre("127.0.0.1:9999"));
  EXPECT_THAT(ids, ElementsAre(9));
  EXPECT_THAT(hosts, ElementsAre(common::VynGetHostname()));

  // The table forgets a variable whatever comes of the call.
  Make(
      meta, ShuffleMeta::BROADCAST_VAR_REMOVE, "", [] { return DeleteBroadcastVar("app", 7); }, 2060009,
      [] { return !Known("app-7"); });
  for (const char* name : {"app-8", "app2-1", "b-1"}) {
    g_broadcastCache->InsertVarInfo(name, {"id"}, {1});
  }
  Make(
      server, ShuffleServer::APP_UNREGISTER, "", [] { return UnRegisterBroadcastApp("app"); }, 1,
      [] { return g_appToken.empty(); });
  EXPECT_EQ(RegisterBroadcastApp("app", true, "new", &registered), 0U) << "still registered here, no call";
  EXPECT_EQ(g_appToken, "");
  Make(
      meta, ShuffleMeta::APP_REMOVE, "", [] { return MarkBroadcastApplicationCompleted("app"); }, 2120013,
      [] { return Known("app-8"); });
  EXPECT_EQ(Joined(Known("app-8"), Known("app2-1"), Known("b-1")), "0|0|1") << "by the name's beginning";
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
  Make(world.server, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, SdkWorld::Blocks(), fetch, 1);
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
        EXPECT_EQ(status == 0 ? ReleaseBroadcastBlockAddr("app", 7, 1, address) : 0U, 0U);
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

/// A driver outside the fabric.
class OutsideDriver : public testing::Test {
 protected:
  std::uint32_t Create(unsigned int count = 2, const char* node = "10.9.8.7:3899") {
    return CreateBroadcastBlockBatchRemote("app", "tok", 7, kSizes, count, node, "host", 3, mIds);
  }

  DriverWorld mWorld{false};
  BmScript& mScript = mWorld.bm.script;
  std::vector<std::string> mIds{"kept"};
};

TEST_F(OutsideDriver, ADriverOutsideTheFabricPlacesItsBlocksOnAChosenNode) {
  bool registered = true;
  EXPECT_EQ(RegisterBroadcastApp("app", true, "tok", &registered), 0U);
  EXPECT_FALSE(registered);

  const auto create = [this] {
    mScript.Clear();
    return Create();
  };
  const auto record = ReadAs<BroadcastBlockInfo>(
      Make(mWorld.meta, ShuffleMeta::BROADCAST_VAR_INFO_ADD, "", create, 2060009, [this] {
        // Once the service has been asked nothing is taken back.
        return mIds.size() == 2 && Known("app-7") && mScript.Calls("BM_BatchFreeSec").empty();
      }));
  EXPECT_THAT(mScript.Calls("BM_CreateLink"), ElementsAre("3|host|10.9.8.7|3899|0"));
  EXPECT_THAT(mScript.Calls("BM_CreateNSSec"), ElementsAre("3||app|0|tok"));
  EXPECT_THAT(mScript.Calls("BM_AllocSec"), ElementsAre("|app|tok|100|16|3", "|app|tok|50|16|3"));
  EXPECT_EQ(mIds[0], std::string(60, 'n') + std::string(4, '\0'));
  EXPECT_EQ(record->nodeId, 3U);
  EXPECT_EQ(record->bmIds, mIds);
  EXPECT_THAT(record->sizes, ElementsAre(100, 50));
  EXPECT_EQ(BmFreeForBlockRemotely("app", "tok", mIds), 0U);
  EXPECT_THAT(mScript.Calls("BM_BatchFreeSec"), ElementsAre(testing::EndsWith("|2|16|app|tok")));
}

TEST_F(OutsideDriver, AFailureBeforeTheRecordFreesTheBlocks) {
  mWorld.meta.Clear();
  mScript.Clear();
  for (const auto& [node, status] : std::vector<std::pair<const char*, std::uint32_t>>{
           {"10.9.8.7", 2000039}, {"10.9.8.7:32768", 2000013}, {nullptr, 2120001}}) {
    EXPECT_EQ(Create(2, node), status);
    EXPECT_TRUE(mScript.Untouched());
  }
  struct Row {
    const char* function;
    std::vector<BmScript::Answer> answers;
    std::uint32_t status;
    std::size_t freed;  ///< batches of blocks; the namespace stays, it has earlier variables
  };
  for (const Row& row : std::vector<Row>{{"BM_CreateLink", {-5}, 2120025, 0},
                                         {"BM_CreateNSSec", {22}, 2120023, 0},
                                         {"BM_AllocSec", {0, 0, -5}, 2120027, 1}}) {
    SCOPED_TRACE(row.function);
    mScript.Clear();
    mScript.Expect(row.function, row.answers);
    EXPECT_EQ(Create(3), row.status);
    EXPECT_EQ(mScript.Calls("BM_BatchFreeSec").size(), row.freed);
    EXPECT_TRUE(mScript.Calls("BM_DestroyNSSec").empty());
    EXPECT_THAT(mIds, ElementsAre("kept"));
    EXPECT_FALSE(Known("app-7"));
  }
  EXPECT_TRUE(mWorld.meta.Requests().empty());
}

}  // namespace
}  // namespace vyn::test
