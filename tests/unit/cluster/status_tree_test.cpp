#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"

#include <gmock/gmock.h>

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::MetaNodeStatus;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Nodes = std::map<std::string, MetaNodeStatus>;

constexpr auto kInit = common::META_NODE_STATUS_INIT;
constexpr auto kAlive = common::META_NODE_STATUS_ALIVE;
constexpr auto kBroken = common::META_NODE_STATUS_BROKEN;
constexpr auto kNone = common::META_NODE_STATUS_NONE;
constexpr const char* kLeader = "/meta/election/leader_info";
constexpr const char* kFollowers = "/meta/election/follower_info/";

class StatusTreeTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  bool Logged(int level, const std::string& text) const { return mLog.Has(level, text); }
};

TEST_F(StatusTreeTest, TheTreeIsMadeFromAMapAndMadeAnew) {
  Nodes nodes;
  EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  EXPECT_EQ(mRaw->Get("/meta/status"), "(null)");
  EXPECT_TRUE(Logged(kInfoLine, "Success to create meta status node: /meta/status"));

  nodes = {{"a", kInit}, {"b", kBroken}};
  EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  EXPECT_TRUE(Logged(kWarnLine, "Meta node has already been created by others, maybe mutex has no effect"));
  EXPECT_TRUE(Audited("create_node", true));
  EXPECT_TRUE(Logged(kInfoLine, "Success to create meta status: /meta/status/b"));
  EXPECT_EQ(mRaw->Get("/meta/status/b"), "1");
  EXPECT_EQ(mRaw->Owner("/meta/status/b"), 0);
  EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  EXPECT_TRUE(Audited("create_status", true));
  EXPECT_TRUE(Logged(kWarnLine, "Meta status has already been created by others, maybe mutex has no effect"));

  nodes = {{"c", kInit}, {"d/e", kInit}, {"f", kInit}};
  EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 1U);
  EXPECT_TRUE(
      Logged(kErrorLine,
             "Failed Create meta status: /meta/status/d/e, ret:-101, zookeeper get error:no node (-101)"));
  EXPECT_THAT(mRaw->Children("/meta/status"), ElementsAre("a", "b", "c"));

  mRaw->Set("/meta/status/a", "3");
  mMeta->mNodeStatusMap = {{"a", kAlive}, {"z", kInit}};
  EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(mMeta), 0U);
  EXPECT_TRUE(Logged(kInfoLine, "/meta/status has children, need to clear children firstly"));
  EXPECT_TRUE(Logged(kInfoLine, "Pass the clear process of /meta/status, ret is: 0"));
  EXPECT_THAT(mRaw->Children("/meta/status"), ElementsAre("a", "z"));
  EXPECT_EQ(mRaw->Get("/meta/status/a"), "1");

  EXPECT_EQ(mAdapter->ZKClearAllStatusNode(), 0U);
  mRaw->Delete("/meta/status");
  EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(mMeta), 0U);
  EXPECT_TRUE(Logged(kInfoLine, "Nodes in /meta/status cleared"));
  EXPECT_THAT(mRaw->Children("/meta/status"), ElementsAre("a", "z"));

  // A child that has a child of its own cannot be cleared, and so neither can the tree.
  mRaw->Create("/meta/status/a/deep");
  EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(mMeta), 1U);
  EXPECT_TRUE(Audited("clear_meta_children", false));
  EXPECT_TRUE(Audited("delete_meta_conf", false));
  EXPECT_TRUE(
      Logged(kErrorLine,
             "Failed to clear node named: /meta/status/a, ret :-111, zookeeper get error:not empty (-111)"));
  EXPECT_TRUE(
      Logged(kErrorLine, "Failed to clear /meta/status, ret is: -111, zookeeper get error:not empty (-111)"));
}

TEST_F(StatusTreeTest, StatusesAreSetAndListed) {
  std::vector<std::pair<std::string, MetaNodeStatus>> list;
  EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 1U);
  EXPECT_TRUE(Audited("get_meta_children", false));
  EXPECT_TRUE(
      Logged(kErrorLine,
             "Failed to get children of /meta/status, ret :-101, count is: 0, zookeeper get error:no node "
             "(-101)"));
  EXPECT_EQ(mAdapter->ZKSetStatus("a", kBroken), 1U);
  EXPECT_TRUE(Audited("get_status", false));
  EXPECT_TRUE(Logged(
      kErrorLine,
      "Failed to get status from path: /meta/status/a, ret is: -101, zookeeper get error:no node (-101)"));

  Nodes nodes = {{"a", kInit}, {"b", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  EXPECT_EQ(mAdapter->ZKSetStatus("a", kBroken), 0U);
  EXPECT_EQ(mRaw->Get("/meta/status/a"), "3");
  // By the rules of stoi, out of the first 100 bytes.
  mRaw->Set("/meta/status/b", " 2x" + std::string(200, '9'));
  mRaw->Create("/meta/status/c", std::string(99, ' ') + "123");
  EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 0U);
  EXPECT_THAT(list, UnorderedElementsAre(Pair("a", kBroken), Pair("b", kAlive), Pair("c", kInit)));

  for (const auto& value : {std::optional<std::string>("x"), std::optional<std::string>(""),
                            std::optional<std::string>("99999999999"), std::optional<std::string>()}) {
    mRaw->Create("/meta/status/odd", value);
    mLog.Clear();
    list.clear();
    EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 1U);
    EXPECT_TRUE(Logged(kErrorLine, "Failed to stoi status from path: /meta/status/odd"));
    mRaw->Delete("/meta/status/odd");
  }
}

TEST_F(StatusTreeTest, MemoryIsBroughtUpToDate) {
  Nodes nodes = {{"a", kInit}, {"b", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", kAlive, false), 1U);  // no leader
  EXPECT_TRUE(StatusMap().empty());
  mRaw->Create(kLeader, "leader");
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", kNone, false), 0U);
  EXPECT_EQ(LeaderAddress(), "leader");
  EXPECT_TRUE(StatusMap().empty());
  mMeta->mNodeStatusMap = {{"gone", kBroken}};
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", kAlive, false), 0U);
  EXPECT_EQ(StatusMap(), (Nodes{{"gone", kBroken}, {"a", kAlive}}));
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", kAlive, true), 0U);
  EXPECT_EQ(StatusMap(), (Nodes{{"gone", kBroken}, {"a", kInit}, {"b", kInit}}));
}

TEST_F(StatusTreeTest, AVanishedFollowerIsBrokenOnlyWhenItWasAlive) {
  Nodes nodes = {{"alive", kInit}, {"here", kInit}, {"init", kInit}, {"leader", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  mRaw->Create(kLeader, "leader");
  for (const char* node : {"alive", "here", "init"}) {
    mRaw->Create(std::string(kFollowers) + node);
  }
  mMeta->mNodeStatusMap = {{"alive", kAlive}, {"here", kAlive}, {"init", kInit}, {"leader", kAlive}};
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(false), 0U);
  mRaw->Delete(std::string(kFollowers) + "init");
  mRaw->Delete(std::string(kFollowers) + "alive");
  ASSERT_TRUE(WaitUntil([&] { return mRaw->Get("/meta/status/alive") == "3"; }));
  EXPECT_TRUE(
      Logged(kInfoLine,
             "MetaNodeFollowerWatcher: ZOO_CHILD_EVENT, path: /meta/election/follower_info, update follower "
             "status"));
  // Its own status watch brings the mark back into memory.
  ASSERT_TRUE(WaitUntil([&] { return StatusMap()["alive"] == kBroken; }));
  for (const char* node : {"here", "init", "leader"}) {
    EXPECT_EQ(mRaw->Get(std::string("/meta/status/") + node), "1") << node;
  }
  mRaw->Delete("/meta/status/here");
  mRaw->Delete(std::string(kFollowers) + "here");  // its mark fails
  EXPECT_TRUE(WaitUntil([&] {
    return Logged(kErrorLine,
                  "Failed to get status from path: /meta/status/here, ret is: -101, zookeeper get error:no "
                  "node (-101)");
  }));
}

TEST_F(StatusTreeTest, AStatusChangeIsBroughtIntoMemory) {
  Nodes nodes = {{"a", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  mRaw->Create(kLeader, "leader");
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(false), 0U);
  struct Case {
    const char* value;
    int status;
  };
  for (const Case& c : {Case{"2", 2}, Case{"3", 3}, Case{"1234567890123", 1234567890}}) {
    mRaw->Set("/meta/status/a", c.value);
    EXPECT_TRUE(WaitUntil([&] { return StatusMap()["a"] == c.status; })) << c.value;
  }
  EXPECT_TRUE(Logged(
      kInfoLine,
      "MetaNodeStatusWatcher: ZOO_CHANGED_EVENT 3 path: /meta/status/a, update information in memory"));
  mRaw->Set("/meta/status/a", "none");
  EXPECT_TRUE(
      WaitUntil([&] { return Logged(kInfoLine, "Failed to stoi the info from path: /meta/status/a"); }));
  mRaw->Delete("/meta/status/a");
  EXPECT_TRUE(WaitUntil(
      [&] { return Logged(kInfoLine, "MetaNodeStatusWatcher: OTHER EVENT: 2, path: /meta/status/a"); }));
  mRaw->Create("/meta/status/a", "1");
  EXPECT_TRUE(WaitUntil(
      [&] { return Logged(kInfoLine, "MetaNodeStatusWatcher: OTHER EVENT: 1, path: /meta/status/a"); }));
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["a"] == 1; }));
  mRaw->Set("/meta/status/a", "2");
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["a"] == 2; }));
  ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_CHANGED_EVENT, 0, "/meta/status",
                                            nullptr);
  EXPECT_TRUE(Logged(kInfoLine, "Failed to get leader ip from node path"));
}

// A connection that is lost keeps watches from being set. Each is told once it is back, with a session event,
// and must act on what it then reads: no change event will come for what has happened before.
TEST_F(StatusTreeTest, WhatALostConnectionHidIsActedUponAfterwards) {
  Nodes nodes = {{"gone", kInit}, {"here", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  mRaw->Set("/meta/status/here", "2");
  mRaw->Create(kLeader, "leader");
  mRaw->Create(std::string(kFollowers) + "here");
  mMeta->mNodeStatusMap = {{"gone", kAlive}, {"here", kInit}};
  gServer->Kill();
  ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000049U; }));
  const auto tell = [](auto watcher, int type, const char* path) {
    watcher(cluster::g_ZKHandler, type, ZOO_CONNECTED_STATE, path, nullptr);
  };
  tell(ClusterZKAdapter::MetaNodeFollowerWatchFunc, ZOO_CHILD_EVENT, "/meta/election/follower_info");
  tell(ClusterZKAdapter::MetaNodeStatusWatchFunc, ZOO_CHANGED_EVENT, "/meta/status/here");
  EXPECT_EQ(StatusMap(), (Nodes{{"gone", kAlive}, {"here", kInit}})) << "nobody could be asked";
  gServer->Start();
  gServer->WaitUntilServing();
  mRaw = std::make_unique<RawZookeeper>(mUrl);
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Get("/meta/status/gone") == "3"; }));
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["here"] == kAlive; }));
  EXPECT_EQ(mRaw->Get("/meta/status/here"), "2");
}

/// A server each: one has memory for one such tree.
class ChildrenLimitTest : public StatusTreeTest, public testing::WithParamInterface<const char*> {
 protected:
  static void SetUpTestSuite() {}
  void SetUp() override {
    gServer = std::make_unique<ZookeeperServer>();
    StatusTreeTest::SetUp();
  }
};

TEST_P(ChildrenLimitTest, MoreAreRefusedWithOneLine) {
  const std::string parent = GetParam();
  const std::vector<std::string> refusal = {"Invalid nodes count from zookeeper for count is: 100001"};
  mRaw->Create(parent + "/100000");
  mRaw->CreateChildren(parent, 99999);
  std::set<unsigned int> ids;
  if (parent == "/mf/node") {
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), 0U);
    EXPECT_EQ(ids.size(), 100000U);
    ids.clear();
  }
  mRaw->Create(parent + "/99999");
  mLog.Clear();
  if (parent == "/mf/node") {
    EXPECT_EQ(mAdapter->ClusterZKGetNodeList(ids), 1U);
    EXPECT_TRUE(ids.empty());
  } else if (parent == "/meta/status") {
    std::vector<std::pair<std::string, MetaNodeStatus>> list;
    EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 1U);
    EXPECT_TRUE(list.empty());
  } else {
    ClusterZKAdapter::MetaNodeFollowerWatchFunc(cluster::g_ZKHandler, ZOO_CHILD_EVENT, 0, parent.c_str(),
                                                nullptr);
  }
  const bool watcher = parent == "/meta/election/follower_info";
  EXPECT_EQ(mLog.Texts(kInfoLine), watcher ? refusal : std::vector<std::string>{});
  EXPECT_EQ(mLog.Texts(kErrorLine), watcher ? std::vector<std::string>{} : refusal);
}

INSTANTIATE_TEST_SUITE_P(Of, ChildrenLimitTest,
                         testing::Values("/mf/node", "/meta/status", "/meta/election/follower_info"));

TEST(PutMetaIntoContainerTest, CutsAtEverySeparator) {
  struct Case {
    std::string list;
    std::string separator;
    Nodes nodes;
  };
  for (Case c :
       {Case{"a,b,a", ",", {{"a", kInit}, {"b", kInit}}}, Case{"", ",", {{"", kInit}}},
        Case{"a,,b", ",", {{"a", kInit}, {"", kInit}, {"b", kInit}}},
        Case{"a, b;c", "; ", {{"a, b;c", kInit}}}, Case{"a::b", "::", {{"a", kInit}, {"b", kInit}}}}) {
    Nodes nodes;
    const std::string whole = c.list + c.separator;
    EXPECT_EQ(ClusterZKAdapter::PutMetaIntoContainer(c.list, c.separator, nodes), 0U);
    EXPECT_EQ(nodes, c.nodes) << whole;
    EXPECT_EQ(c.list, whole);
  }
  Nodes nodes = {{"a", kBroken}};
  std::string list = "a";
  EXPECT_EQ(ClusterZKAdapter::PutMetaIntoContainer(list, ",", nodes), 0U);
  EXPECT_EQ(nodes, (Nodes{{"a", kBroken}}));
  EXPECT_EQ(ClusterZKAdapter::PutMetaIntoContainer(list, "", nodes), 1U);
}

}  // namespace
}  // namespace vyn::test
