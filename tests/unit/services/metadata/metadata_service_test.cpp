// The metadata service as its clients see it, which nodes it offers, and a member's part in the election.

#include "services/metadata/metadata_service.h"

#include "cluster/node_records.h"
#include "common/message/heart_beat_message.h"
#include "platform/fabric/protocol/names.h"
#include "services/common/service_status.h"
#include "services/metadata/metadata_member.h"
#include "services/metadata/nodes/node_selection.h"
#include "support/fabric/fabric.h"
#include "support/net/proxy.h"
#include "support/rpc/service_client.h"
#include "support/zookeeper/cluster_test.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"

namespace vyn::services {
namespace {

using namespace tessel;  // the messages
using namespace test;
using common::HeartBeatMessage;
using testing::ElementsAre;

class MetadataServiceTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    AddNode(1, "host-1", true);
    AddNode(2, "host-2", false);
    mRaw->Create("/mf/node/007", "");  // the fabric writes no such number
    MetadataServiceOptions options;
    options.address = "127.0.0.1";
    options.applicationTimeout = std::chrono::seconds(1);
    StartAgain(mOwner, mPlaces[0].Options());
    fabric::FabricNodeOptions asking = mPlaces[1].Options();
    asking.directory = Directory(1, mOwner);
    StartAgain(mLeader, asking);
    options.sizesAtNode = [this](auto node, const auto& app, const auto& ids, auto& sizes) {
      return mLeader.Sizes(node, app, ids, sizes);
    };
    mService = std::make_unique<MetadataService>(options, mView);
    ASSERT_EQ(mService->Start(std::chrono::hours(1)), 0U);
    mClient.emplace(mService->Port());
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
      mRaw->Create("/mf/node/" + name, cluster::NodeRecord{3899, "127.0.0.1", host}.Encode());
      mRaw->Create("/mf/capacity/" + name, cluster::CapacityRecord{1000, 600, 0}.Encode());
    }
  }
  std::uint32_t New(const std::string& app, std::uint32_t blocks = 1) {
    return mClient->Send<BroadcastVar>(BROADCAST_VAR_NEW, nullptr, app, 1U, blocks);
  }
  std::uint32_t Fetch(const std::string& app) {
    mGot = new BroadcastBlockInfo();
    return mClient->Send<BroadcastVar>(BROADCAST_VAR_GET, mGot.Get(), app, 1U);
  }

  std::string Block(const std::string& app, std::uint64_t size) {
    std::string id;
    mOwner.CreateNamespace(app, "t");
    EXPECT_EQ(mOwner.Allocate(app, size, id), 0);
    return id;
  }

  const FabricPlace mPlaces[2]{FabricPlace(1), FabricPlace(9)};
  fabric::FabricNode mOwner, mLeader;  ///< the leader asks over a link
  FabricView mView;
  std::unique_ptr<MetadataService> mService;
  std::optional<ServiceClient> mClient;
  Ref<BroadcastBlockInfo> mGot;
};

TEST_F(MetadataServiceTest, TheServiceCreatesPublishesAndRemovesAVariableAndRefusesBadRequests) {
  EXPECT_EQ(mClient->Send<BroadcastVar>(500, nullptr, "app", 1U), kStatusUnknownOperation);
  for (const std::string& name :
       {std::string(), std::string("a/b"), std::string("a\0b", 3), std::string(256, 'n')}) {
    EXPECT_EQ(New(name), kStatusInvalidRequest) << name;
    EXPECT_EQ(mClient->Send<BroadcastVar>(BROADCAST_VAR_REMOVE, nullptr, name), kStatusInvalidRequest);
    EXPECT_EQ(mClient->Send<ShuffleApplication>(APP_REMOVE, nullptr, name), kStatusInvalidRequest);
    EXPECT_EQ(mClient->Send<HeartBeatMessage>(HEART_BEAT, nullptr, name), kStatusInvalidRequest);
  }
  EXPECT_EQ(New("app", 2), 0U);
  EXPECT_EQ(Fetch("app"), kStatusNotReady);
  using Ids = std::vector<std::string>;
  const Ids ids{Block("app", 7), Block("app", 8)};
  const std::string foreign = Block("other", 8);
  const std::string gone = fabric::MakeObjectId(1), unknown = fabric::MakeObjectId(2);
  using Sizes = std::vector<std::uint64_t>;
  for (const auto& [id, node, bmIds, sizes, status] :
       {std::tuple(1U, 1U, ids, Sizes{7}, kStatusInvalidRequest),
        std::tuple(1U, 1U, Ids{ids[0], "short"}, Sizes{7, 7}, kStatusInvalidRequest),
        std::tuple(1U, 1U, ids, Sizes{600, 401}, kStatusInvalidRequest),  // the pool has 1000 bytes
        std::tuple(1U, 1U, ids, Sizes{~std::uint64_t{0}, 8}, kStatusInvalidRequest),
        std::tuple(1U, 2U, ids, Sizes{7, 7}, kStatusWrongOwner),  // their node would never free them
        std::tuple(1U, 1U, Ids{ids[0], ids[1], Block("app", 7)}, Sizes{7, 8, 7}, kStatusInvalidRequest),
        std::tuple(2U, 1U, ids, Sizes{7, 8}, kStatusUnknownVariable),
        // What the node has decides.
        std::tuple(1U, 1U, ids, Sizes{7, 9}, kStatusBlocksDiffer),
        std::tuple(1U, 1U, ids, Sizes{6, 8}, kStatusBlocksDiffer),
        std::tuple(1U, 1U, Ids{ids[0], ids[0]}, Sizes{7, 7}, kStatusBlocksDiffer),
        std::tuple(1U, 1U, Ids{ids[0], gone}, Sizes{7, 8}, kStatusBlocksDiffer),
        std::tuple(1U, 1U, Ids{ids[0], foreign}, Sizes{7, 8}, kStatusBlocksDiffer),
        std::tuple(1U, 2U, Ids{unknown}, Sizes{7}, kStatusNodeUnreachable),
        // As a driver outside the fabric sends it.
        std::tuple(1U, 1U, Ids{ids[0] + std::string(4, '\0'), ids[1]}, Sizes{7, 8}, std::uint32_t{VYN_OK})}) {
    for (const std::uint16_t code : {BROADCAST_VAR_INFO_ADD, BROADCAST_BLOCK_INFO_ADD}) {
      EXPECT_EQ(Fetch("app"), code == BROADCAST_BLOCK_INFO_ADD && status == 0 ? 0 : kStatusNotReady);
      EXPECT_EQ(mClient->Send<BroadcastBlockInfo>(code, nullptr, "app", id, node, bmIds, sizes), status);
    }
  }
  Ids many;  // more than one frame of the question
  std::generate_n(std::back_inserter(many), 1025, [this] { return Block("app", 7); });
  Sizes sizes;
  EXPECT_EQ(mLeader.Sizes(1, "app", many, sizes), 0);
  EXPECT_EQ(sizes, Sizes(1025, 7));
  ASSERT_EQ(Fetch("app"), 0U);
  EXPECT_TRUE(mGot->bmIds == ids && mGot->nodeId == 1U);
  Ref<BlockBmInfo> block(new BlockBmInfo());
  const auto get = [&](std::uint32_t index) {
    return mClient->Send<BlockInfoRequest>(BROADCAST_BLOCK_INFO_GET, block.Get(), "app", 1U, index);
  };
  EXPECT_EQ(get(2), kStatusUnknownVariable);
  EXPECT_EQ(get(1), 0U);
  EXPECT_THAT(block->bmIds, ElementsAre(ids[1]));
  EXPECT_EQ(mClient->Send<BroadcastVar>(BROADCAST_VAR_REMOVE, nullptr, "app", 1U), 0U);
  EXPECT_EQ(Fetch("app"), kStatusUnknownVariable);
  EXPECT_THAT(ReadFile(mFolder / "audit.log"),
              testing::ContainsRegex("\\[127.0.0.1:[0-9]+\\]\\[remove_variable\\]\\[app/1\\]\\[SUCCESS\\]"));
}

TEST_F(MetadataServiceTest, OnlyTheWriterThatHasClaimedANumberPublishesOrGivesItUp) {
  const std::vector<std::string> mine{Block("app", 7)}, others{Block("app", 7)};
  const auto claim = [this](std::uint16_t code, const std::vector<std::string>& writer,
                            bool published = false, std::uint32_t blocks = 1) {
    return mClient->Send<VariableClaim>(code, nullptr, "app", 1U, blocks, writer.front(), published);
  };
  const auto publish = [this](const std::vector<std::string>& blocks) {
    return mClient->Send<BroadcastBlockInfo>(BROADCAST_VAR_INFO_ADD, nullptr, "app", 1U, 1U, blocks,
                                             std::vector<std::uint64_t>{7});
  };
  EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, {"no id"}), kStatusInvalidRequest);
  EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, {"no id"}), kStatusInvalidRequest);
  EXPECT_EQ(New("app"), 0U);
  EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, mine), kStatusNotReady) << "the record names no writer";
  EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, mine), kStatusVariableExists);
  const auto removeUnpublished = [this] {
    return mClient->Send<BroadcastVar>(BROADCAST_VAR_REMOVE, nullptr, "app", 1U, kOnlyUnpublished);
  };
  EXPECT_EQ(removeUnpublished(), 0U);
  for (const bool published : {false, true}) {
    // As a driver outside the fabric sends it; the second is a repetition.
    EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, {mine.front() + std::string(4, '\0')}), 0U);
    EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, mine), 0U);
    EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, mine, false, 2), kStatusVariableExists);
    EXPECT_EQ(claim(BROADCAST_VAR_CLAIM, others), kStatusVariableExists);
    EXPECT_EQ(New("app"), kStatusVariableExists);
    EXPECT_EQ(publish(others), kStatusVariableExists);
    EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, others, true), 0U);
    EXPECT_EQ(removeUnpublished(), kStatusVariableExists);
    EXPECT_EQ(Fetch("app"), kStatusNotReady);
    if (published) {
      EXPECT_EQ(publish(mine), 0U);
      EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, mine), kStatusVariableExists);
      EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, others, true), 0U);
      EXPECT_EQ(Fetch("app"), 0U);
    }
    EXPECT_EQ(claim(BROADCAST_VAR_GIVE_UP, mine, published), 0U);
    EXPECT_EQ(Fetch("app"), kStatusUnknownVariable);
  }
}

TEST_F(MetadataServiceTest, TheServiceListsItsNodesAndTheirCapacity) {
  const Ref<HostMessage> hosts(new HostMessage());
  ASSERT_EQ(mClient->Send<ShuffleApplication>(GET_UNAVAILABLE_NODE_LIST, hosts.Get(), "app"), 0U);
  EXPECT_THAT(hosts->hosts, ElementsAre("host-2"));
  const Ref<ClusterCapacityMessage> nodes(new ClusterCapacityMessage());
  ASSERT_EQ(mClient->Send<ShuffleApplication>(GET_MF_CAPACITY_LIST, nodes.Get(), "app"), 0U);
  EXPECT_TRUE(nodes->caps.at(0)->host == "host-1" && nodes->caps[0]->capacityB == 600U);
  AddNode(3, "host-3", true);  // the view of this test has no thread: who asks for a new node makes it look
  EXPECT_TRUE(WaitUntil([&] {
    const Ref<BroadcastRemoteNodeRsp> remote(new BroadcastRemoteNodeRsp());
    EXPECT_EQ(mClient->Send<BroadcastRemoteNodeReq>(BROADCAST_REMOTE_NODE_GET, remote.Get(), "app", false,
                                                    std::vector<std::string>{"host-3"}),
              0U);
    return remote->nodeIds == std::vector<std::uint16_t>{3} && remote->selectedNodes[0] == "127.0.0.1:3899";
  }));
}

TEST_F(MetadataServiceTest, CheckValidAppReturnsTheRegisteredApplications) {
  ASSERT_EQ(New("quiet"), 0U);
  const Ref<ShuffleApplicationIdList> known(new ShuffleApplicationIdList());
  const auto ask = [&](const std::vector<std::string>& names) {
    return mClient->Send<ShuffleApplicationIdList>(CHECK_VALID_APP, known.Get(), names);
  };
  EXPECT_EQ(ask(std::vector<std::string>(501, "other")), kStatusTooLarge) << "each would be a read";
  EXPECT_EQ(ask(std::vector<std::string>(10001, "quiet")), kStatusTooLarge);
  EXPECT_EQ(ask({"gone", "quiet", "a/b"}), 0U);
  EXPECT_THAT(known->appIds, ElementsAre("quiet"));
}

TEST_F(MetadataServiceTest, TheServiceRefusesRequestsAfterItsLeadershipEnds) {
  EXPECT_EQ(Fetch("app"), kStatusUnknownVariable);
  mService->ServeUntil(std::chrono::steady_clock::now());
  EXPECT_EQ(Fetch("app"), MetadataStore::kStatusLeadershipLost) << "another may lead, and know better";
  mService->ServeUntil(std::chrono::steady_clock::time_point::max());
  MetadataState next;
  ASSERT_EQ(next.Load(), 0U);
  EXPECT_FALSE(mService->LeadershipLost());
  EXPECT_EQ(New("app"), MetadataStore::kStatusLeadershipLost);
  EXPECT_TRUE(mService->LeadershipLost());
}

TEST(NodeSelection, SelectNodesOrdersTheCandidatesByFreeMemory) {
  struct Case {
    std::vector<std::pair<std::string, std::uint64_t>> live;  ///< address, free bytes; the ids count from 1
    std::vector<std::string> candidates;
    std::vector<std::uint32_t> selected;
  };
  const decltype(Case::live) four{{"10.0.0.1", 5}, {"10.0.0.2", 9}, {"10.0.0.3", 9}, {"10.0.0.4", 7}};
  const decltype(Case::live) mixed{{"127.0.0.1", 1}, {"10.0.0.2", 2}};
  for (const Case& c : {Case{four, {}, {2, 3, 4, 1}}, Case{four, {"10.0.0.1", "host-4", "10.0.0.9"}, {4, 1}},
                        Case{mixed, {"127.0.0.1"}, {}}, Case{mixed, {"localhost", "::1", "10.0.0.2"}, {2}},
                        Case{{{"127.0.0.1", 1}, {"127.0.0.2", 2}}, {"127.0.0.1"}, {1}}}) {
    std::vector<cluster::NodeInfo> live;
    for (const auto& [ip, free] : c.live) {
      const auto id = static_cast<std::uint32_t>(live.size() + 1);
      live.push_back({id, ip, 0, "host-" + std::to_string(id), 1, 0, free, 0, ""});
    }
    std::vector<std::uint32_t> ids;
    for (const auto& node : SelectNodes(live, c.candidates, false)) {
      ids.push_back(node.nodeId);
    }
    EXPECT_EQ(ids, c.selected);
    EXPECT_EQ(SelectNodes(live, c.candidates, true).size(), c.selected.empty() ? 0U : 1U);
  }
}

constexpr const char* kSelf = "127.0.0.1";
constexpr const char* kOther = "127.0.0.9";
constexpr const char* kLeaderPath = "/meta/election/leader_info";
constexpr const char* kFollowerPath = "/meta/election/follower_info/127.0.0.1";

class MetadataMemberTest : public ClusterTest {
 protected:
  void TearDown() override {
    mMember.reset();
    ClusterTest::TearDown();
  }
  void StartMember(std::uint16_t port = 0) {
    MetadataMemberOptions options;
    options.nodeAddress = kSelf;
    options.nodeList = std::string(kSelf) + "," + kOther;
    options.service.address = kSelf;
    options.service.port = port;
    mMember = std::make_unique<MetadataMember>(options);
    ASSERT_EQ(mMember->Start(), 0U);
  }
  bool Leads() {
    return WaitUntil([this] { return mMember->Leading(); });
  }
  bool HasStatuses(const std::string& self, const std::string& other) {
    return WaitUntil([&] {
      return mRaw->Get(std::string("/meta/status/") + kSelf) == self &&
             mRaw->Get(std::string("/meta/status/") + kOther) == other;
    });
  }

  std::unique_ptr<MetadataMember> mMember;
};

TEST_F(MetadataMemberTest, AMemberRecognisesItsOwnClaimAndMutexAfterALostReply) {
  // As they stand when the connection broke after the server had made them.
  for (const char* path : {kLeaderPath, "/meta/mutex"}) {
    ASSERT_EQ(
        DoDlZooCreate(VynGetZkHandle(), path, kSelf, 9, &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0),
        ZOK);
  }
  mMeta->mLeaderAddress = kOther;               // who led before
  mRaw->Create("/meta/status/127.0.0.8", "2");  // no node any more
  StartMember();
  EXPECT_TRUE(Leads());
  EXPECT_EQ(LeaderAddress(), kSelf);
  EXPECT_FALSE(mRaw->Exists("/meta/mutex"));
  EXPECT_TRUE(HasStatuses("2", "3"));
  EXPECT_FALSE(mRaw->Exists(kFollowerPath) || mRaw->Exists("/meta/status/127.0.0.8"));
  mMember->Stop();
  EXPECT_FALSE(mRaw->Exists(kLeaderPath));

  mRaw->Create(kLeaderPath, kOther, ZOO_EPHEMERAL);
  cluster::ClusterZKAdapter::isRunning = true;  // as in a new process
  StartMember();
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Exists(kFollowerPath); }));
  EXPECT_FALSE(mMember->Leading());
  mMember->Stop();
  EXPECT_EQ(mRaw->Get(kLeaderPath), kOther) << "another's claim is left alone";
  EXPECT_FALSE(mRaw->Exists(kFollowerPath));
}

TEST_F(MetadataMemberTest, AMemberRegistersAgainAfterItsSessionExpired) {
  mRaw->Create(std::string("/meta/status/") + kSelf, "3");
  mRaw->Create(std::string("/meta/status/") + kOther, "2");
  Connect(mUrl, 4000);
  StartMember();
  ASSERT_TRUE(Leads());
  EXPECT_TRUE(HasStatuses("2", "3")) << "who went while nobody led is found out";
  const clientid_t before = DoDlZooClientId(VynGetZkHandle());
  ExpireSession(mUrl, before);
  EXPECT_TRUE(WaitUntil([&] {
    return mMember->Leading() && mRaw->Exists(kLeaderPath) && mRaw->Owner(kLeaderPath) != before.client_id;
  }));
  EXPECT_EQ(mRaw->Owner(kLeaderPath), DoDlZooClientId(VynGetZkHandle()).client_id);
}

TEST_F(MetadataMemberTest, AMemberStopsServingBeforeItsSessionCanExpire) {
  ByteProxy link(static_cast<std::uint16_t>(gServer->Port()));
  Connect("127.0.0.1:" + std::to_string(link.Port()) + mUrl.substr(mUrl.find('/')), 8000);
  StartMember();  // asks for 30 seconds, more than the session was granted
  ASSERT_TRUE(Leads());
  link.Cut(true);
  EXPECT_TRUE(WaitUntil([&] { return !mRaw->Exists(kLeaderPath); })) << "another may lead from now on";
  EXPECT_FALSE(mMember->Leading());
  link.Cut(false);
  EXPECT_TRUE(Leads());
  mMember.reset();
  Disconnect();
}

TEST_F(MetadataMemberTest, AMemberResignsWhenItsServiceCannotStart) {
  const RawListener taken;
  StartMember(taken.Port());
  EXPECT_TRUE(WaitUntil([&] { return mLog.Texts(kErrorLine).size() >= 2; }));
  EXPECT_TRUE(WaitUntil([&] { return !mRaw->Exists(kLeaderPath); }));
  EXPECT_FALSE(mMember->Leading());
}

}  // namespace
}  // namespace vyn::services
