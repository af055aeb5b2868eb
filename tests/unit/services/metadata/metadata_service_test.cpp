#include "services/metadata/metadata_service.h"

#include "common/message/heart_beat_message.h"
#include "common/rpc/rpc_engine.h"
#include "services/common/service_status.h"
#include "support/cluster_test.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"

#include <gmock/gmock.h>

#include <cstring>

namespace vyn::services {
namespace {

using common::Ref;
using namespace tessel;

constexpr long kTimeout = 60000;

class MetadataServiceTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    AddNode(1, "host-1", true);
    AddNode(2, "host-2", false);
    mRaw->Create("/mf/node/007", "");  // the fabric writes no such number
    MetadataServiceOptions options;
    options.address = "127.0.0.1";
    options.applicationTimeout = std::chrono::seconds(1);
    mService = std::make_unique<MetadataService>(options, mView);
    ASSERT_EQ(mService->Start(std::chrono::hours(1)), 0U);
    std::string ip = "127.0.0.1";
    std::map<std::string, const std::string> security;
    ASSERT_EQ(mEngine->Initialize(ip, static_cast<short>(mService->Port()), kTimeout, false, false, security),
              0U);
  }
  void TearDown() override {
    mService.reset();
    ClusterTest::TearDown();
  }
  /// A node that registered once, and whether it is alive.
  void AddNode(std::uint32_t id, const std::string& host, bool live) {
    const std::string name = std::to_string(id);
    mRaw->Create("/vyn/nodes/" + name, R"({"host":")" + host + R"("})");
    mRaw->Create("/vyn/reclaim/" + name, "");
    if (live) {
      std::string record(88, '\0');
      const std::uint32_t port = 3899;
      std::memcpy(record.data() + 4, &port, sizeof(port));
      std::memcpy(record.data() + 8, "127.0.0.1", 9);
      std::memcpy(record.data() + 24, host.data(), host.size());
      mRaw->Create("/mf/node/" + name, record);
      std::string capacity(24, '\0');
      const std::array<std::uint64_t, 2> bytes{1000, 600};
      std::memcpy(capacity.data(), bytes.data(), sizeof(bytes));
      mRaw->Create("/mf/capacity/" + name, capacity);
    }
  }
  std::uint32_t Call(std::uint16_t code, const Ref<common::BaseMessage>& request,
                     const Ref<common::BaseMessage>& response = nullptr) {
    return mEngine->SyncRpcCall(code, request, response, kTimeout);
  }
  std::uint32_t Variable(std::uint16_t code, const std::string& app, std::uint32_t id, std::uint32_t blocks,
                         const Ref<common::BaseMessage>& response = nullptr) {
    Ref<BroadcastVar> request(new BroadcastVar());
    request->appId = app;
    request->broadcastId = id;
    request->blockNum = blocks;
    return Call(code, request.Get(), response);
  }
  static Ref<BroadcastBlockInfo> Blocks(const std::string& app, std::uint32_t id, std::size_t count) {
    Ref<BroadcastBlockInfo> info(new BroadcastBlockInfo());
    info->appId = app;
    info->broadcastId = id;
    info->nodeId = 1;
    info->bmIds.assign(count, "b0001" + std::string(55, 'b'));
    info->sizes.assign(count, 7);
    return info;
  }

  FabricView mView;
  std::unique_ptr<MetadataService> mService;
  Ref<common::RpcEngine> mEngine{new common::RpcEngine()};
};

TEST_F(MetadataServiceTest, RefusesWhatMakesNoSense) {
  for (const std::uint16_t code : {1, 19, 31, 500}) {
    EXPECT_EQ(Variable(code, "app", 1, 1), kStatusUnknownOperation) << code;
  }
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("a b"), std::string("a\0b", 3), std::string("../x")}) {
    EXPECT_EQ(Variable(BROADCAST_VAR_NEW, name, 1, 1), kStatusInvalidRequest) << name;
    EXPECT_EQ(Variable(BROADCAST_VAR_REMOVE, name, 1, 1), kStatusInvalidRequest) << name;
  }
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 2), 0U);
  auto info = Blocks("app", 1, 2);
  info->sizes.pop_back();
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, info.Get()), kStatusInvalidRequest) << "lists that do not pair";
  info = Blocks("app", 1, 2);
  info->bmIds[0] = "short";
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, info.Get()), kStatusInvalidRequest);
  info = Blocks("app", 1, 2);
  info->nodeId = 2;
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, info.Get()), kStatusWrongOwner)
      << "their node would never free them";
  EXPECT_EQ(Call(BROADCAST_BLOCK_INFO_ADD, info.Get()), kStatusWrongOwner);
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, Blocks("app", 1, 3).Get()), kStatusInvalidRequest);
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, Blocks("app", 2, 2).Get()), kStatusUnknownVariable);
  Ref<BroadcastBlockInfo> got(new BroadcastBlockInfo());
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1, 0, got.Get()), kStatusNotReady);
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "other", 1, 0, got.Get()), kStatusUnknownVariable);
}

TEST_F(MetadataServiceTest, AVariableFromItsMakingToItsEnd) {
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 2), 0U);
  auto info = Blocks("app", 1, 2);
  info->bmIds[1].append(4, '\0');  // as a driver outside the fabric sends it
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, info.Get()), 0U);
  Ref<BroadcastBlockInfo> got(new BroadcastBlockInfo());
  ASSERT_EQ(Variable(BROADCAST_VAR_GET, "app", 1, 0, got.Get()), 0U);
  EXPECT_EQ(got->bmIds, Blocks("app", 1, 2)->bmIds);
  EXPECT_EQ(got->nodeId, 1U);
  EXPECT_EQ(Variable(BROADCAST_VAR_REMOVE, "app", 1, 0), 0U);
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1, 0, got.Get()), kStatusUnknownVariable);
  EXPECT_THAT(test::ReadFile(mFolder / "audit.log"),
              testing::ContainsRegex("\\[127.0.0.1:[0-9]+\\]\\[remove_variable\\]\\[app/1\\]\\[SUCCESS\\]"));
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/1"), testing::SizeIs(1));
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/2"), testing::SizeIs(1)) << "also the node that is down";
  Ref<ShuffleApplication> app(new ShuffleApplication());
  app->appId = "app";
  EXPECT_EQ(Call(APP_REMOVE, app.Get()), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
}

TEST_F(MetadataServiceTest, TellsOfItsNodes) {
  Ref<ShuffleApplication> app(new ShuffleApplication());
  app->appId = "app";
  Ref<HostMessage> hosts(new HostMessage());
  ASSERT_EQ(Call(GET_UNAVAILABLE_NODE_LIST, app.Get(), hosts.Get()), 0U);
  EXPECT_THAT(hosts->hosts, testing::ElementsAre("host-2"));
  Ref<ClusterCapacityMessage> capacities(new ClusterCapacityMessage());
  ASSERT_EQ(Call(GET_MF_CAPACITY_LIST, app.Get(), capacities.Get()), 0U);
  ASSERT_EQ(capacities->caps.size(), 1U);
  EXPECT_EQ(capacities->caps[0]->host, "host-1");
  EXPECT_EQ(capacities->caps[0]->capacityB, 600U);

  Ref<BroadcastRemoteNodeReq> request(new BroadcastRemoteNodeReq());
  request->appId = "app";
  Ref<BroadcastRemoteNodeRsp> nodes(new BroadcastRemoteNodeRsp());
  ASSERT_EQ(Call(BROADCAST_REMOTE_NODE_GET, request.Get(), nodes.Get()), 0U);
  EXPECT_THAT(nodes->selectedNodes, testing::ElementsAre("127.0.0.1:3899"));
  EXPECT_THAT(nodes->nodeIds, testing::ElementsAre(1));
  Ref<NodeIdResponse> belongs(new NodeIdResponse());
  EXPECT_EQ(Call(IS_MF_NODE, request.Get(), belongs.Get()), kStatusInvalidRequest) << "no candidate";
  request->candidateNodes = {"host-1"};
  ASSERT_EQ(Call(IS_MF_NODE, request.Get(), belongs.Get()), 0U);
  EXPECT_TRUE(belongs->isMfNode);
  EXPECT_EQ(belongs->nodeId, 1U);
  // The view of this test has no thread: a node that has just come is seen all the same.
  AddNode(3, "host-3", true);
  request->candidateNodes = {"host-3"};
  EXPECT_TRUE(test::WaitUntil([&] {
    return Call(IS_MF_NODE, request.Get(), belongs.Get()) == 0 && belongs->isMfNode && belongs->nodeId == 3;
  }));
}

TEST_F(MetadataServiceTest, OnlyWhoSentHeartbeatsIsMissed) {
  ASSERT_EQ(Variable(BROADCAST_VAR_NEW, "beating", 1, 1), 0U);
  ASSERT_EQ(Variable(BROADCAST_VAR_NEW, "quiet", 1, 1), 0U);
  Ref<common::HeartBeatMessage> beat(new common::HeartBeatMessage());
  beat->ns = "beating";
  beat->isAlive = true;
  ASSERT_EQ(Call(HEART_BEAT, beat.Get()), 0U);
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists("/vyn/apps/beating"); }));
  EXPECT_TRUE(mRaw->Exists("/vyn/apps/quiet"));
  Ref<ShuffleApplicationIdList> asked(new ShuffleApplicationIdList());
  Ref<ShuffleApplicationIdList> known(new ShuffleApplicationIdList());
  asked->appIds = {"beating", "quiet"};
  ASSERT_EQ(Call(CHECK_VALID_APP, asked.Get(), known.Get()), 0U);
  EXPECT_THAT(known->appIds, testing::ElementsAre("quiet"));
  asked->appIds.assign(501, "other");
  EXPECT_EQ(Call(CHECK_VALID_APP, asked.Get(), known.Get()), kStatusTooLarge);
}

TEST_F(MetadataServiceTest, StopsServingWhenAnotherLeads) {
  Ref<BroadcastBlockInfo> got(new BroadcastBlockInfo());
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1, 0, got.Get()), kStatusUnknownVariable);
  mService->ServeUntil(std::chrono::steady_clock::now());
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1, 0, got.Get()), MetadataStore::kStatusDeposed)
      << "another may lead, and know better";
  mService->ServeUntil(std::chrono::steady_clock::time_point::max());
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  EXPECT_FALSE(mService->Deposed());
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 1), MetadataStore::kStatusDeposed);
  EXPECT_TRUE(mService->Deposed());
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
}

}  // namespace
}  // namespace vyn::services
