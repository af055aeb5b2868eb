// A node's records in the cluster's tree, what it gives back, and its question to the metadata leader.

#include "services/node/node_registry.h"

#include "cluster/node_records.h"
#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/metadata/metadata_state.h"
#include "services/node/metadata_client.h"
#include "services/node/reclaimer.h"
#include "support/client/client_test.h"
#include "support/fabric/fabric.h"
#include "support/rpc/service_client.h"
#include "support/zookeeper/cluster_test.h"
#include "support/zookeeper/zookeeper_calls.h"
#include "tessel/message/operation_codes.h"

namespace vyn::services {
namespace {

using namespace std::chrono_literals;

constexpr const char* kNode = "/mf/node/7";
constexpr const char* kCapacity = "/mf/capacity/7";
constexpr const char* kKnown = "/vyn/nodes/7";

/// The record of a node.
std::string NodeBytes(const std::string& ip, const std::string& host, std::uint32_t port = 0x1234) {
  return cluster::NodeRecord{port, ip, host}.Encode();
}

/// A node with one object of 1 MiB in a pool of 8.
class NodeRegistryTest : public test::ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    fabric::FabricNodeOptions options = mPlace.Options();
    options.capacity = 8U << 20U;
    ASSERT_TRUE(mFabric.Start(options, mError)) << mError;
    ASSERT_EQ(mFabric.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mFabric.Allocate("app", 1U << 20U, mId), 0);
  }
  void TearDown() override {
    mFabric.Stop();
    ClusterTest::TearDown();
  }

  test::FabricPlace mPlace{7};
  fabric::FabricNode mFabric;
  std::string mId;
  std::string mError;
};

TEST_F(NodeRegistryTest, TheRegistryPublishesAndRemovesBothRecordsOfANode) {
  std::atomic<int> madeAnew{0};
  NodeRegistry registry({7, "10.0.0.1", "host-7", 0x1234}, mFabric, [&] {
    EXPECT_TRUE(mRaw->Exists(kNode));  // from now on the leader waits for this node
    ++madeAnew;
  });
  ASSERT_TRUE(registry.Claim(mError)) << mError;
  EXPECT_FALSE(mRaw->Exists(kCapacity)) << "a node that does not serve yet is not chosen";
  ASSERT_TRUE(registry.Start(mError)) << mError;
  EXPECT_TRUE(registry.IsKnown());
  const std::int64_t session = mRaw->Owner(kNode);
  EXPECT_TRUE(session != 0 && session == mRaw->Owner(kCapacity));
  Connect(mUrl, 4000);  // a new session: they are made again, by it
  EXPECT_TRUE(test::WaitUntil([&] { return mRaw->Exists(kCapacity) && mRaw->Owner(kCapacity) != session; }));
  EXPECT_EQ(mRaw->Get(kCapacity).substr(0, 16),
            test::Wire(std::uint64_t{8U << 20U}, std::uint64_t{7U << 20U}));
  EXPECT_EQ(mRaw->Get(kNode), NodeBytes("10.0.0.1", "host-7"));
  EXPECT_EQ(madeAnew, 1);
  {
    const test::ZookeeperCalls calls([](const test::ZookeeperCall& call) {
      return call.function == std::string("DoDlZooSet") ? int{ZCONNECTIONLOSS} : call.make();
    });
    EXPECT_TRUE(test::WaitUntil([&] { return !registry.IsKnown(); }));
  }
  EXPECT_TRUE(test::WaitUntil([&] { return registry.IsKnown(); }));
  registry.Stop();
  EXPECT_FALSE(registry.IsKnown());
  EXPECT_FALSE(mRaw->Exists(kNode) || mRaw->Exists(kCapacity));
  EXPECT_TRUE(mRaw->Exists(kKnown) && mRaw->Exists("/vyn/reclaim/7"));
}

TEST_F(NodeRegistryTest, TheRegistryRefusesTheIdOfAnotherNode) {
  struct Case {
    const char* what;
    std::string present;  ///< at /mf/node/7, of another session; empty: nothing
    std::string known;    ///< at /vyn/nodes/7; empty: nothing
    bool takeOver;
    std::string refusal;  ///< a part of it; empty: claimed
  };
  const std::string own = R"({"host":"h","ip":"10.0.0.1"})";
  const std::string other = R"({"host":"h","ip":"10.0.0.9"})";
  for (const Case& c :
       {Case{"has moved with its pool", "", other, false, ""},  // which has objects in the first case only
        Case{"after a crash, with another name", NodeBytes("10.0.0.1", "old"), own, false, ""},
        Case{"runs elsewhere, whatever is said", NodeBytes("10.0.0.9", "host-7"), "", true, "10.0.0.9"},
        Case{"runs here by another port", NodeBytes("10.0.0.1", "host-7", 4661), own, false, "4661"},
        Case{"no record at all", "x", own, false, "belongs"},
        Case{"is down elsewhere", "", other, false, "--take-over"},
        Case{"is taken over", "", other, true, ""}, Case{"damaged", "", "{", false, ""}}) {
    SCOPED_TRACE(c.what);
    mRaw->Create("/vyn/reclaim/7/entry", "kept");
    for (const auto& [path, text, flags] :
         {std::tuple(kNode, c.present, int{ZOO_EPHEMERAL}), std::tuple(kKnown, c.known, 0)}) {
      if (!text.empty()) {
        mRaw->Create(path, text, flags);
      }
    }
    NodeIdentity identity{7, "10.0.0.1", "host-7", 0x1234};
    identity.claimLimit = 500ms;
    identity.takeOver = c.takeOver;
    std::string error;
    EXPECT_EQ(NodeRegistry(identity, mFabric).Claim(error), c.refusal.empty()) << error;
    EXPECT_NE(error.find(c.refusal), std::string::npos) << error;
    const auto expected = [&](const std::string& before, const std::string& claimed) {
      return c.refusal.empty() ? claimed : before.empty() ? "(none)" : before;
    };
    EXPECT_EQ(mRaw->Get(kNode), expected(c.present, NodeBytes("10.0.0.1", "host-7")));
    EXPECT_EQ(mRaw->Get(kKnown), expected(c.known, R"({"host":"host-7","ip":"10.0.0.1"})"));
    EXPECT_EQ(mRaw->Get("/vyn/reclaim/7/entry"), "kept");
    for (const char* path : {"/mf/node", "/vyn/nodes", "/vyn/reclaim"}) {
      EXPECT_EQ(zookeeper::DeleteTree(path), ZOK);
    }
    mFabric.DestroyNamespace("app");
  }
}

TEST_F(NodeRegistryTest, TheReclaimerKeepsWhatItCannotFreeUntilTheApplicationEnds) {
  const auto enter = [&](const std::string& name, const std::string& path) {
    mRaw->Create("/vyn/reclaim/7/" + name, ReclaimEntry{"app", path, 0, !path.empty()}.ToText());
  };
  mRaw->Create("/vyn/apps/app/0.damaged", "no record");
  mRaw->Create("/vyn/apps/app/0.incomplete",
               RecordHeader(RecordState::kDeleted, 1, 2, "0.1"));  // no second piece
  for (const char* name : {"damaged", "incomplete", "gone"}) {
    enter(name, std::string("/vyn/apps/app/0.") + name);
  }
  int forgotten = 0;
  Reclaimer reclaimer(7, mFabric,
                      [&](const ReclaimEntry& entry) { forgotten += !entry.variablePath.empty(); });
  mLog.Clear();
  for (int time = 0; time < 2; ++time) {
    EXPECT_TRUE(reclaimer.Drain()) << "nothing is left that could be done";
    EXPECT_EQ(forgotten, 3) << "each once: the number may be in use again";
    EXPECT_EQ(mRaw->Children("/vyn/reclaim/7").size(), 2U);
    EXPECT_EQ(mFabric.Stats().objects, 1U);
  }
  EXPECT_EQ(mRaw->Children("/vyn/apps/app").size(), 2U);
  EXPECT_EQ(mLog.Texts(test::kErrorLine).size(), 4U) << "a damaged record each time, that blocks stay once";
  EXPECT_TRUE(Reclaimer(7, mFabric, [&](const ReclaimEntry&) { ++forgotten; }).Drain());
  EXPECT_EQ(forgotten, 3) << "nor after a restart";

  enter("end", "");
  EXPECT_TRUE(reclaimer.Drain());
  EXPECT_TRUE(reclaimer.Drain());  // what stood in front of it in the list
  EXPECT_TRUE(mRaw->Children("/vyn/reclaim/7").empty());
  EXPECT_EQ(mRaw->Children("/vyn/apps/app").size(), 2U) << "the leader removes them with the application";
  EXPECT_EQ(mFabric.Stats().objects, 0U);
}

TEST_F(NodeRegistryTest, TheReclaimerSkipsRecordsOfANewerBuildAndForgedEntries) {
  tessel::BroadcastBlockInfo blocks;
  blocks.bmIds = {mId};
  blocks.sizes = {1U << 20U};
  const std::string newer = R"({"state":"striped","format":2})";
  const std::pair<const char*, std::string> tree[] = {
      {"nodes/7", ""},
      {"apps/app/1.x", RecordHeader(RecordState::kDeleted, 1, 1) + test::BytesOf(blocks)},
      {"apps/app/2.x", newer},
      {"apps/other/3.x", RecordHeader(RecordState::kDeleted, 0, 0)},
      {"reclaim/7/a", R"({"app":"nosuch","path":"no slash","variable":1,"owner":true})"},
      {"reclaim/7/b", R"({"app":"nosuch","path":"/vyn/nodes","variable":1,"owner":true})"},
      {"reclaim/7/c", R"({"app":"app","path":"/vyn/apps/other/3.x","variable":3,"owner":true})"},
      {"reclaim/7/d", ReclaimEntry{"app", "/vyn/apps/app/2.x", 2, true}.ToText()},
      {"reclaim/7/e", R"({"app":"app","path":"","variable":0,"owner":false,"format":2})"},
      {"reclaim/7/f", "rubbish"},
      {"reclaim/7/g", ReclaimEntry{"app", "/vyn/apps/app/1.x", 1, true}.ToText()},
      {"reclaim/7/h", ReclaimEntry{"app", "/vyn/apps/app/3.x", 3}.ToText()},
      {"reclaim/7/i", ReclaimEntry{"app", "/vyn/apps/app/4.x", 4}.ToText()}};
  for (const auto& [path, text] : tree) {
    mRaw->Create(std::string("/vyn/") + path, text);
  }
  std::vector<std::uint32_t> forgotten;
  EXPECT_TRUE(Reclaimer(7, mFabric, [&](const ReclaimEntry& entry) {
                forgotten.push_back(entry.variableId);
                EXPECT_EQ(mFabric.Stats().objects, 1U) << "memory is freed last: that may take long";
              }).Drain());
  EXPECT_THAT(forgotten, testing::UnorderedElementsAre(1, 2, 3, 4));
  EXPECT_EQ(mFabric.Stats().objects, 0U) << "what stands behind them in the list is freed";
  EXPECT_THAT(mRaw->Children("/vyn/reclaim/7"), testing::UnorderedElementsAre("d", "e", "f"));
  EXPECT_TRUE(mRaw->Exists("/vyn/nodes/7") && mRaw->Exists("/vyn/apps/other/3.x"));

  EXPECT_EQ(MetadataState().Load(), kStatusNewerRecord) << "this node does not lead";
  EXPECT_EQ(mRaw->Get("/vyn/apps/app/2.x"), newer);
}

TEST(MetadataClient, ALookUpLeavesAVanishedLeaderForTheNewOne) {
  const test::TwinServices hosts;
  test::PlainConfiguration()->Set("vyn.tessel.rpc.shuffle_meta.port", int{hosts.first->Port()});
  hosts.first->Answer(BROADCAST_VAR_GET, {0, "", test::ScriptedService::Reply::kSilence});
  const auto variable = test::Make<tessel::BroadcastBlockInfo>(
      "app", 7U, 5U, std::vector{std::string(60, 'b')}, std::vector<std::uint64_t>{5});
  hosts.second->Answer(BROADCAST_VAR_GET, {0, test::BytesOf(*variable)});
  tessel::BroadcastBlockInfo found;
  MetadataClient brief({200ms, 200ms, 1500ms});
  tessel::SetLeader("");
  EXPECT_EQ(brief.LookUp("app", 7, found), kStatusNoLeader);
  tessel::SetLeader("127.0.0.1");
  EXPECT_TRUE(Failed(brief.LookUp("app", 7, found)));
  hosts.first->Clear();
  std::jthread election([&] {
    EXPECT_TRUE(hosts.first->WaitFor(1));
    tessel::SetLeader("127.0.0.2");
  });
  MetadataClient client({.call = 1000ms});
  EXPECT_EQ(client.LookUp("app", 7, found), 0U);
  EXPECT_EQ(found.nodeId, 5U);
  hosts.second->Answer(BROADCAST_VAR_GET, {kStatusUnknownVariable, ""});
  EXPECT_EQ(client.LookUp("app", 8, found), kStatusUnknownVariable) << "the leader's own word, at once";
}

}  // namespace
}  // namespace vyn::services
