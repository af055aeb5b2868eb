// The metadata service as its clients see it, which nodes it offers, and a member's part in the election.

#include "services/metadata/metadata_service.h"

#include "common/message/heart_beat_message.h"
#include "common/rpc/rpc_engine.h"
#include "services/common/service_status.h"
#include "services/metadata/metadata_member.h"
#include "services/metadata/node_selection.h"
#include "support/cluster_test.h"
#include "support/proxy.h"
#include "support/test.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"

namespace vyn::services {
namespace {

using common::BaseMessage;
using common::Ref;
using namespace tessel;  // the messages
using testing::ElementsAre;

constexpr long kTimeout = 60000;

template <typename Message>
Ref<Message> Make(std::string Message::*name, const std::string& text) {
  Ref<Message> message(new Message());
  (*message).*name = text;
  return message;
}

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
      std::string record = test::Wire(0U, 3899U) + "127.0.0.1";
      record.resize(24);
      record += host;
      record.resize(88);
      mRaw->Create("/mf/node/" + name, record);
      mRaw->Create("/mf/capacity/" + name,
                   test::Wire(std::uint64_t{1000}, std::uint64_t{600}, std::uint64_t{0}));
    }
  }
  std::uint32_t Call(std::uint16_t code, const Ref<BaseMessage>& request,
                     const Ref<BaseMessage>& response = nullptr) {
    return mEngine->SyncRpcCall(code, request, response, kTimeout);
  }
  std::uint32_t Variable(std::uint16_t code, const std::string& app, std::uint32_t id,
                         std::uint32_t blocks = 0) {
    auto request = Make(&BroadcastVar::appId, app);
    request->broadcastId = id;
    request->blockNum = blocks;
    mGot = new BroadcastBlockInfo();
    return Call(code, request.Get(), code == BROADCAST_VAR_GET ? mGot.Get() : nullptr);
  }
  static Ref<BroadcastBlockInfo> Blocks(std::uint32_t id, std::size_t count, std::uint32_t node = 1) {
    auto info = Make(&BroadcastBlockInfo::appId, "app");
    info->broadcastId = id;
    info->nodeId = node;
    info->bmIds.assign(count, "b0001" + std::string(55, 'b'));
    info->sizes.assign(count, 7);
    return info;
  }

  FabricView mView;
  std::unique_ptr<MetadataService> mService;
  Ref<common::RpcEngine> mEngine{new common::RpcEngine()};
  Ref<BroadcastBlockInfo> mGot;
};

TEST_F(MetadataServiceTest, RefusesWhatMakesNoSense) {
  for (const std::uint16_t code : {1, 19, 31, 500}) {
    EXPECT_EQ(Variable(code, "app", 1, 1), kStatusUnknownOperation) << code;
  }
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("a b"), std::string("a\0b", 3)}) {
    EXPECT_EQ(Variable(BROADCAST_VAR_NEW, name, 1, 1), kStatusInvalidRequest) << name;
    EXPECT_EQ(Variable(BROADCAST_VAR_REMOVE, name, 1), kStatusInvalidRequest) << name;
    EXPECT_EQ(Call(APP_REMOVE, Make(&ShuffleApplication::appId, name).Get()), kStatusInvalidRequest) << name;
    EXPECT_EQ(Call(HEART_BEAT, Make(&common::HeartBeatMessage::ns, name).Get()), kStatusInvalidRequest)
        << name;
  }
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 2), 0U);
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), kStatusNotReady);
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "other", 1), kStatusUnknownVariable);
  const auto odd = Blocks(1, 2);
  odd->sizes.pop_back();
  const auto shortId = Blocks(1, 2);
  shortId->bmIds[0] = "short";
  const auto large = Blocks(1, 2);
  large->sizes = {600, 401};  // the pool has 1000 bytes
  const auto overflowing = Blocks(1, 2);
  overflowing->sizes = {~std::uint64_t{0}, 8};
  const std::pair<Ref<BroadcastBlockInfo>, std::uint32_t> lists[] = {
      {odd, kStatusInvalidRequest},          {large, kStatusInvalidRequest},
      {overflowing, kStatusInvalidRequest},  {shortId, kStatusInvalidRequest},
      {Blocks(1, 2, 2), kStatusWrongOwner},  // their node would never free them
      {Blocks(1, 3), kStatusInvalidRequest}, {Blocks(2, 2), kStatusUnknownVariable}};
  for (const auto& [info, status] : lists) {
    for (const std::uint16_t code : {BROADCAST_VAR_INFO_ADD, BROADCAST_BLOCK_INFO_ADD}) {
      EXPECT_EQ(Call(code, info.Get()), status) << code;
    }
  }
}

TEST_F(MetadataServiceTest, AVariableFromItsMakingToItsEnd) {
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 2), 0U);
  const auto info = Blocks(1, 2);
  info->bmIds[1].append(4, '\0');  // as a driver outside the fabric sends it
  EXPECT_EQ(Call(BROADCAST_VAR_INFO_ADD, info.Get()), 0U);
  ASSERT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), 0U);
  EXPECT_TRUE(mGot->bmIds == Blocks(1, 2)->bmIds && mGot->nodeId == 1U);
  auto one = Make(&BlockInfoRequest::appId, "app");
  one->broadcastId = 1;
  Ref<BlockBmInfo> block(new BlockBmInfo());
  EXPECT_EQ(Call(BROADCAST_BLOCK_INFO_GET, one.Get(), block.Get()), 0U);
  EXPECT_THAT(block->bmIds, ElementsAre(mGot->bmIds[0]));
  EXPECT_EQ(Variable(BROADCAST_VAR_REMOVE, "app", 1), 0U);
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), kStatusUnknownVariable);
  EXPECT_THAT(test::ReadFile(mFolder / "audit.log"),
              testing::ContainsRegex("\\[127.0.0.1:[0-9]+\\]\\[remove_variable\\]\\[app/1\\]\\[SUCCESS\\]"));
  for (const char* list : {"/vyn/reclaim/1", "/vyn/reclaim/2"}) {
    EXPECT_EQ(mRaw->Children(list).size(), 1U) << "also the node that is down";
  }
  EXPECT_EQ(Call(APP_REMOVE, Make(&ShuffleApplication::appId, "app").Get()), 0U);
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
}

TEST_F(MetadataServiceTest, TellsOfItsNodes) {
  const auto app = Make(&ShuffleApplication::appId, "app");
  Ref<HostMessage> hosts(new HostMessage());
  ASSERT_EQ(Call(GET_UNAVAILABLE_NODE_LIST, app.Get(), hosts.Get()), 0U);
  EXPECT_THAT(hosts->hosts, ElementsAre("host-2"));
  Ref<ClusterCapacityMessage> capacities(new ClusterCapacityMessage());
  ASSERT_EQ(Call(GET_MF_CAPACITY_LIST, app.Get(), capacities.Get()), 0U);
  ASSERT_EQ(capacities->caps.size(), 1U);
  EXPECT_TRUE(capacities->caps[0]->host == "host-1" && capacities->caps[0]->capacityB == 600U);
  const auto request = Make(&BroadcastRemoteNodeReq::appId, "app");
  Ref<BroadcastRemoteNodeRsp> nodes(new BroadcastRemoteNodeRsp());
  ASSERT_EQ(Call(BROADCAST_REMOTE_NODE_GET, request.Get(), nodes.Get()), 0U);
  EXPECT_THAT(nodes->selectedNodes, ElementsAre("127.0.0.1:3899"));
  EXPECT_THAT(nodes->nodeIds, ElementsAre(1));
  Ref<NodeIdResponse> belongs(new NodeIdResponse());
  EXPECT_EQ(Call(IS_MF_NODE, request.Get(), belongs.Get()), kStatusInvalidRequest) << "no candidate";
  AddNode(3, "host-3", true);  // the view of this test has no thread: who asks for a new node makes it look
  for (const std::uint32_t id : {1U, 3U}) {
    request->candidateNodes = {"host-" + std::to_string(id)};
    EXPECT_TRUE(test::WaitUntil([&] {
      return Call(IS_MF_NODE, request.Get(), belongs.Get()) == 0 && belongs->isMfNode &&
             belongs->nodeId == id;
    }));
  }
}

TEST_F(MetadataServiceTest, OnlyWhoSentHeartbeatsIsMissed) {
  ASSERT_EQ(Variable(BROADCAST_VAR_NEW, "beating", 1, 1), 0U);
  ASSERT_EQ(Variable(BROADCAST_VAR_NEW, "quiet", 1, 1), 0U);
  const auto beat = Make(&common::HeartBeatMessage::ns, "beating");
  beat->isAlive = true;
  ASSERT_EQ(Call(HEART_BEAT, beat.Get()), 0U);
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists("/vyn/apps/beating"); }));
  EXPECT_TRUE(mRaw->Exists("/vyn/apps/quiet"));
  Ref<ShuffleApplicationIdList> asked(new ShuffleApplicationIdList());
  Ref<ShuffleApplicationIdList> known(new ShuffleApplicationIdList());
  asked->appIds = {"beating", "quiet", "a/b"};
  ASSERT_EQ(Call(CHECK_VALID_APP, asked.Get(), known.Get()), 0U);
  EXPECT_THAT(known->appIds, ElementsAre("quiet"));
  for (const std::size_t count : {501U, 10001U}) {
    asked->appIds.assign(count, count == 501 ? "other" : "quiet");
    EXPECT_EQ(Call(CHECK_VALID_APP, asked.Get(), known.Get()), kStatusTooLarge);
  }
}

TEST_F(MetadataServiceTest, StopsServingWhenAnotherLeads) {
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), kStatusUnknownVariable);
  mService->ServeUntil(std::chrono::steady_clock::now());
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), MetadataStore::kStatusLeadershipLost)
      << "another may lead, and know better";
  mService->ServeUntil(std::chrono::steady_clock::time_point::max());
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  EXPECT_FALSE(mService->LeadershipLost());
  EXPECT_EQ(Variable(BROADCAST_VAR_NEW, "app", 1, 1), MetadataStore::kStatusLeadershipLost);
  EXPECT_TRUE(mService->LeadershipLost());
  EXPECT_FALSE(mRaw->Exists("/vyn/apps/app"));
  EXPECT_EQ(Variable(BROADCAST_VAR_GET, "app", 1), MetadataStore::kStatusLeadershipLost);
}

TEST(NodeSelection, MostFreeMemoryFirstAmongTheCandidates) {
  struct Case {
    std::vector<std::pair<std::string, std::uint64_t>> live;  ///< address, free bytes; the ids count from 1
    std::vector<std::string> candidates;
    std::vector<std::uint32_t> selected;
  };
  const decltype(Case::live) four{{"10.0.0.1", 5}, {"10.0.0.2", 9}, {"10.0.0.3", 9}, {"10.0.0.4", 7}};
  const decltype(Case::live) mixed{{"127.0.0.1", 1}, {"10.0.0.2", 2}};
  for (const Case& c : {Case{four, {}, {2, 3, 4, 1}}, Case{four, {"10.0.0.1", "host-4", "10.0.0.9"}, {4, 1}},
                        Case{four, {"10.0.0.9"}, {}}, Case{{}, {}, {}}, Case{mixed, {"127.0.0.1"}, {}},
                        Case{mixed, {"localhost", "::1", "10.0.0.2"}, {2}},
                        Case{{{"127.0.0.1", 1}, {"127.0.0.2", 2}}, {"127.0.0.1"}, {1}}}) {
    std::vector<cluster::NodeInfo> live;
    for (const auto& [ip, free] : c.live) {
      cluster::NodeInfo& node = live.emplace_back();
      node.nodeId = static_cast<std::uint32_t>(live.size());
      node.ip = ip;
      node.hostName = "host-" + std::to_string(live.size());
      node.capacityB = free;
    }
    for (const bool single : {false, true}) {
      std::vector<std::uint32_t> ids;
      for (const auto& node : SelectNodes(live, c.candidates, single)) {
        ids.push_back(node.nodeId);
      }
      auto expected = c.selected;
      expected.resize(single ? std::min<std::size_t>(1, expected.size()) : expected.size());
      EXPECT_EQ(ids, expected);
    }
  }
}

constexpr const char* kSelf = "127.0.0.1";
constexpr const char* kOther = "127.0.0.9";
constexpr const char* kLeaderPath = "/meta/election/leader_info";
constexpr const char* kFollowerPath = "/meta/election/follower_info/127.0.0.1";

class MetadataMemberTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  void TearDown() override {
    mMember.reset();
    ClusterTest::TearDown();
  }
  void StartMember(int port = 0) {
    MetadataMemberOptions options;
    options.nodeAddress = kSelf;
    options.nodeList = std::string(kSelf) + "," + kOther;
    options.service.address = kSelf;
    options.service.port = static_cast<std::uint16_t>(port);
    options.onNewSession = [this] { ++mSessions; };
    mMember = std::make_unique<MetadataMember>(options);
    ASSERT_EQ(mMember->Start(), 0U);
  }
  bool Leads() {
    return test::WaitUntil([this] { return mMember->Leading(); });
  }
  bool HasStatuses(const std::string& self, const std::string& other) {
    return test::WaitUntil([&] {
      return mRaw->Get(std::string("/meta/status/") + kSelf) == self &&
             mRaw->Get(std::string("/meta/status/") + kOther) == other;
    });
  }

  std::atomic<int> mSessions{0};
  std::unique_ptr<MetadataMember> mMember;
};

TEST_F(MetadataMemberTest, AClaimOrMutexWhoseReplyWasLostIsItsOwn) {
  // As they stand when the connection broke after the server had made them.
  for (const std::string& path :
       {cluster::ClusterZKAdapter::mMetaLeaderPath, cluster::ClusterZKAdapter::mMetaMutexPath}) {
    ASSERT_EQ(DoDlZooCreate(VynGetZkHandle(), path.c_str(), kSelf, 9, &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL,
                            nullptr, 0),
              ZOK);
  }
  mMeta->mLeaderAddress = kOther;  // who led before
  StartMember();
  EXPECT_TRUE(Leads());
  EXPECT_EQ(LeaderAddress(), kSelf);
  EXPECT_FALSE(mRaw->Exists(cluster::ClusterZKAdapter::mMetaMutexPath));
  EXPECT_TRUE(HasStatuses("2", "3"));
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
  mMember->Stop();
  EXPECT_FALSE(mRaw->Exists(kLeaderPath));
}

TEST_F(MetadataMemberTest, FollowsWhoLeadsAndTakesOverWhenItGoes) {
  mRaw->Create(kLeaderPath, kOther, ZOO_EPHEMERAL);
  StartMember();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Exists(kFollowerPath); }));
  EXPECT_TRUE(HasStatuses("2", "1"));
  EXPECT_FALSE(mMember->Leading());
  EXPECT_EQ(LeaderAddress(), kOther);
  mMember->Stop();
  EXPECT_EQ(mRaw->Get(kLeaderPath), kOther) << "another's claim is left alone";
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));

  cluster::ClusterZKAdapter::isRunning = true;  // as in a new process
  StartMember();
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Exists(kFollowerPath); }));
  mRaw->Delete(kLeaderPath);
  EXPECT_TRUE(Leads());
  EXPECT_EQ(mRaw->Get(kLeaderPath), kSelf);
  EXPECT_TRUE(HasStatuses("2", "3"));
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
}

TEST_F(MetadataMemberTest, AnnouncesItselfAnewWhenItsSessionHasExpired) {
  mRaw->Create(std::string("/meta/status/") + kSelf, "3");
  mRaw->Create(std::string("/meta/status/") + kOther, "2");
  StartMember();
  ASSERT_TRUE(Leads());
  EXPECT_TRUE(HasStatuses("2", "3")) << "who went while nobody led is found out";
  const clientid_t before = DoDlZooClientId(VynGetZkHandle());
  test::ExpireSession(gServer->Port(), before);
  EXPECT_TRUE(test::WaitUntil([&] { return mSessions >= 1; }));
  EXPECT_TRUE(Leads());
  EXPECT_NE(mRaw->Owner(kLeaderPath), before.client_id);
  EXPECT_EQ(mRaw->Owner(kLeaderPath), DoDlZooClientId(VynGetZkHandle()).client_id);
}

TEST_F(MetadataMemberTest, StopsServingBeforeItsSessionCanHaveExpired) {
  mAdapter->ClusterZKClose();
  test::ByteProxy link(static_cast<std::uint16_t>(gServer->Port()));
  test::UseZookeeper("127.0.0.1:" + std::to_string(link.Port()) + mUrl.substr(mUrl.find('/')));
  Connect(8000);
  StartMember();  // asks for 30 seconds, more than the session was granted
  ASSERT_TRUE(Leads());
  link.Cut(true);
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists(kLeaderPath); })) << "another may lead from now on";
  EXPECT_FALSE(mMember->Leading());
  link.Cut(false);
  EXPECT_TRUE(Leads());
  mMember.reset();
  mAdapter->ClusterZKClose();
}

TEST_F(MetadataMemberTest, GivesUpAClaimThatItCannotServe) {
  const test::RawListener taken;
  StartMember(taken.Port());
  EXPECT_TRUE(test::WaitUntil([&] { return mLog.Texts(test::kErrorLine).size() >= 2; }));
  EXPECT_TRUE(test::WaitUntil([&] { return !mRaw->Exists(kLeaderPath); }));
  EXPECT_FALSE(mMember->Leading());
}

}  // namespace
}  // namespace vyn::services
