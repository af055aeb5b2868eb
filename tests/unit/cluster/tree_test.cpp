// The watches and what they keep in memory: random changes of the tree against a model of both, and by hand how
// texts and status znodes are read and made.

#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"
#include "support/random_steps.h"
#include "support/zookeeper_calls.h"

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::MetaNodeStatus;
using testing::ElementsAre;
using testing::Pair;
using testing::UnorderedElementsAre;
using Statuses = std::map<std::string, MetaNodeStatus>;

constexpr auto kInit = common::META_NODE_STATUS_INIT;
constexpr auto kAlive = common::META_NODE_STATUS_ALIVE;
constexpr auto kBroken = common::META_NODE_STATUS_BROKEN;
const std::string kLeader = "/meta/election/leader_info";
const std::string kFollowers = "/meta/election/follower_info/";
const std::string kStatuses = "/meta/status/";

class TreeTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  void SetStatus(const std::string& node, MetaNodeStatus status) {
    mRaw->Set(kStatuses + node, std::to_string(status));
  }
};

class TreeModelTest : public TreeTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    // A call may take two thirds of it while the server restarts, and the session must outlive that.
    Connect(15000);
  }
  struct Node {
    MetaNodeStatus status = kInit;
    bool follows = false;
  };

  /// Makes a leader of a follower, or of a node that has gone, as a take-over does.
  void ChangeLeader(const std::string& name, bool overwrite) {
    if (overwrite) {
      mRaw->Set(kLeader, name);
    } else {
      mRaw->Delete(kLeader);
      mRaw->Create(kLeader, name);
    }
    SetStatus(mLeader, kBroken);
    mNodes[mLeader].status = kBroken;
    if (std::exchange(mNodes[name].follows, false)) {
      mRaw->Delete(kFollowers + name);
    }
    mLeader = name;
  }
  /// One change of a node that nothing else changes until memory has followed: what is expected then does not
  /// depend on when the watchers run.
  void Change(RandomSteps& random, const std::string& name, bool locked) {
    Node& node = mNodes[name];
    // A node that is alive, and neither follows nor leads, would be marked at any time.
    const bool mayLive = node.follows || name == mLeader;
    const auto status = mayLive ? random.Pick<MetaNodeStatus>({kInit, kAlive, kAlive, kBroken})
                                : random.Pick<MetaNodeStatus>({kInit, kBroken});
    const std::uint32_t change = random.Number(name == mLeader ? 2 : 5);
    random.Note(name + " change " + std::to_string(change) + " status " + std::to_string(status));
    switch (change) {
      case 0:
        SetStatus(name, status);
        node.status = status;
        break;
      case 1:
        mRaw->Delete(kStatuses + name);
        mRaw->Create(kStatuses + name, std::to_string(status));
        node.status = status;
        break;
      case 2:
        ChangeLeader(name, !locked);
        break;
      default:
        if (node.follows) {
          mRaw->Delete(kFollowers + name);
          node.status = node.status == kAlive ? kBroken : node.status;
        } else {
          mRaw->Create(kFollowers + name);
          SetStatus(name, kAlive);
          node.status = kAlive;
        }
        node.follows = !node.follows;
    }
  }
  /// Several changes, of a node each.
  void Burst(RandomSteps& random) {
    std::unique_lock lock(ClusterZKAdapter::mZKHandleLock, std::defer_lock);
    if (random.OneIn(2)) {
      lock.lock();  // no watcher runs before the end
    }
    const std::string leader = mLeader;
    for (auto node = mNodes.begin(); node != mNodes.end() && mLeader == leader; ++node) {
      if (random.OneIn(2)) {
        Change(random, node->first, lock.owns_lock());
      }
    }
  }
  bool Settled() {
    Statuses expected;
    bool tree = true;
    for (const auto& [name, node] : mNodes) {
      expected[name] = node.status;
      tree = tree && mRaw->Get(kStatuses + name) == std::to_string(node.status);
    }
    return tree && StatusMap() == expected && LeaderAddress() == mLeader;
  }
  void ExpectSettled(RandomSteps& random) {
    ASSERT_TRUE(WaitUntil([this] { return Settled(); }, std::chrono::seconds(30)))
        << random.Story() << "leader " << LeaderAddress() << ", expected " << mLeader << ", memory "
        << testing::PrintToString(StatusMap());
  }

  std::map<std::string, Node> mNodes;
  std::string mLeader = "n0";
};

TEST_F(TreeModelTest, MemoryFollowsTheTree) {
  mRaw->Create(kLeader, mLeader);
  for (const char* name : {"n0", "n1", "n2", "n3", "n4"}) {
    mNodes[name];
    mRaw->Create(kStatuses + name, "1");
  }
  const std::jthread busy([&](const std::stop_token& end) {
    while (!end.stop_requested()) {
      mAdapter->ClusterZKCheckAvailable();
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  });
  for (const unsigned int seed : Seeds(3)) {
    RandomSteps random(seed);
    {
      // A leader that comes between the caller's own read and the watch: no event tells of it.
      std::lock_guard lock(ClusterZKAdapter::mZKHandleLock);
      ASSERT_EQ(mAdapter->ZKUpdateMemoryInformation("", common::META_NODE_STATUS_NONE, true), 0U);
      ChangeLeader(mLeader == "n1" ? "n2" : "n1", false);
      EXPECT_EQ(mAdapter->ZKRegisterWatcher(seed % 2 == 0), 0U);
      EXPECT_EQ(LeaderAddress(), mLeader);
      EXPECT_EQ(mAdapter->ZKRegisterWatcher(false), 0U);
      ASSERT_EQ(mAdapter->ZKUpdateMemoryInformation("", common::META_NODE_STATUS_NONE, true), 0U);
    }
    for (int i = 0; i < 60; ++i) {
      if (i == 30 && seed % 3 == 1) {
        random.Note("the server restarts");
        gServer->Kill();
        ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() != 0U; }));
        gServer->Start();
        gServer->WaitUntilServing();
        mRaw = std::make_unique<RawZookeeper>(mUrl);
      }
      if (random.OneIn(8)) {
        random.Note("nobody leads for a moment");
        ChangeLeader(mLeader == "n3" ? "n4" : "n3", false);
      } else {
        Burst(random);
      }
      ASSERT_NO_FATAL_FAILURE(ExpectSettled(random));
    }
  }
}

// Setting a watch fails while the connection is lost. Its watcher is told once the connection is back, and acts
// on what it reads then: no event tells of what has happened before.
TEST_F(TreeTest, WhatALostConnectionHidIsActedUponAfterwards) {
  Statuses nodes = {{"gone", kInit}, {"here", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  SetStatus("here", kAlive);
  mRaw->Create(kLeader, "leader");
  mRaw->Create(kFollowers + "here");
  mMeta->mNodeStatusMap = {{"gone", kAlive}, {"here", kInit}};
  gServer->Kill();
  ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000049U; }));
  ClusterZKAdapter::MetaNodeFollowerWatchFunc(cluster::g_ZKHandler, ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE,
                                              "/meta/election/follower_info", nullptr);
  ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE,
                                            "/meta/status/here", nullptr);
  EXPECT_EQ(StatusMap(), (Statuses{{"gone", kAlive}, {"here", kInit}})) << "nobody could be asked";
  gServer->Start();
  gServer->WaitUntilServing();
  mRaw = std::make_unique<RawZookeeper>(mUrl);
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Get(kStatuses + "gone") == "3"; }));
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["here"] == kAlive; }));
  EXPECT_EQ(mRaw->Get(kStatuses + "here"), "2");
}

TEST_F(TreeTest, AConnectionThatIsLostBetweenTheReadsOfAWatcherHidesNothing) {
  Statuses nodes = {{"gone", kInit}, {"here", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  mRaw->Create(kLeader, "leader");
  mMeta->mNodeStatusMap = {{"gone", kAlive}, {"here", kInit}};
  SetStatus("here", kAlive);
  int reads = 0;
  const ZookeeperCalls calls([&](const ZookeeperCall& call) {
    return call.path == kLeader && ++reads <= 2 ? int{ZCONNECTIONLOSS} : call.make();
  });
  ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_CHANGED_EVENT, ZOO_CONNECTED_STATE,
                                            "/meta/status/here", nullptr);
  EXPECT_EQ(StatusMap()["here"], kAlive);
  ClusterZKAdapter::MetaNodeFollowerWatchFunc(cluster::g_ZKHandler, ZOO_CHILD_EVENT, ZOO_CONNECTED_STATE,
                                              "/meta/election/follower_info", nullptr);
  EXPECT_EQ(mRaw->Get(kStatuses + "gone"), "3");
}

TEST_F(TreeTest, TheLeadersTextIsTakenByItsLength) {
  mMeta->mLeaderAddress = "old";
  EXPECT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta), 1U);
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", kAlive, false), 1U);
  EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 2000055U) << "there must be a leader";
  EXPECT_TRUE(LeaderAddress() == "old" && StatusMap().empty());
  struct Case {
    std::optional<std::string> value;
    std::string leader;
  };
  const std::string longest(30, 'a');
  for (const Case& c : {Case{"10.0.0.1:3892", "10.0.0.1:3892"}, Case{"", ""}, Case{std::nullopt, ""},
                        Case{longest, longest}, Case{longest + "cut", longest}}) {
    mRaw->Create(kLeader, c.value);
    mLog.Clear();
    EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("a", common::META_NODE_STATUS_NONE, false), 0U);
    EXPECT_EQ(LeaderAddress(), c.leader);
    EXPECT_EQ(mLog.Texts(kWarnLine).empty(), c.value.value_or("").size() <= 30);
    EXPECT_TRUE(StatusMap().empty());
    mRaw->Delete(kLeader);
  }
}

TEST_F(TreeTest, WatchersRestWhenTheDaemonStops) {
  mRaw->Create(kLeader, "first");
  const auto tell = [](zhandle_t* handle) {
    ClusterZKAdapter::MetaNodeLeaderWatchFunc(handle, ZOO_CREATED_EVENT, 0, kLeader.c_str(), nullptr);
  };
  for (const bool runs : {false, true}) {
    ClusterZKAdapter::isRunning = runs;
    tell(cluster::g_ZKHandler);
    EXPECT_EQ(LeaderAddress(), runs ? "first" : "");
  }
  mAdapter->ClusterZKClose();
  mMeta->mLeaderAddress.clear();
  tell(nullptr);
  EXPECT_EQ(LeaderAddress(), "");
}

TEST_F(TreeTest, TheStatusTreeIsMadeFromAMapAndMadeAnew) {
  Statuses nodes = {{"a", kInit}, {"b", kBroken}};
  for (const bool again : {false, true}) {
    mLog.Clear();
    EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
    EXPECT_EQ(mLog.Texts(kWarnLine).size(), again ? 3U : 0U);
    EXPECT_EQ(mRaw->Get(kStatuses + "b"), "1");
    EXPECT_EQ(mRaw->Owner(kStatuses + "b"), 0);
  }
  nodes = {{"c", kInit}, {"d/e", kInit}, {"f", kInit}};
  EXPECT_EQ(mAdapter->ZKCreateStatus(nodes), 1U);
  EXPECT_THAT(mRaw->Children("/meta/status"), ElementsAre("a", "b", "c"));

  SetStatus("a", kBroken);
  mMeta->mNodeStatusMap = {{"a", kAlive}, {"z", kInit}};
  for (const bool cleared : {false, true}) {
    EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(mMeta), 0U);
    EXPECT_THAT(mRaw->Children("/meta/status"), ElementsAre("a", "z"));
    EXPECT_EQ(mRaw->Get(kStatuses + "a"), "1");
    if (!cleared) {
      EXPECT_EQ(mAdapter->ZKClearAllStatusNode(), 0U);
    }
  }
  // A child that has a child of its own cannot be cleared, and so neither can the tree.
  mRaw->Create(kStatuses + "a/deep");
  EXPECT_EQ(mAdapter->ZKClearAndCreateStatusDynamic(mMeta), 1U);
  EXPECT_TRUE(Audited("clear_meta_children", false) && Audited("delete_meta_conf", false));
}

TEST_F(TreeTest, StatusesAreReadByTheRulesOfStoi) {
  std::vector<std::pair<std::string, MetaNodeStatus>> list;
  mRaw->Create(kLeader, "leader");
  mRaw->Create(kStatuses + "b", " 2x" + std::string(200, '9'));
  mRaw->Create(kStatuses + "c", std::string(99, ' ') + "123");  // 100 bytes are read
  EXPECT_EQ(mAdapter->ZKSetStatus("b", kBroken), 0U);
  EXPECT_EQ(mRaw->Get(kStatuses + "b"), "3");
  mRaw->Set(kStatuses + "b", " 2x" + std::string(200, '9'));
  EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 0U);
  EXPECT_THAT(list, UnorderedElementsAre(Pair("b", kAlive), Pair("c", kInit)));
  mMeta->mNodeStatusMap = {{"gone", kBroken}};
  EXPECT_EQ(mAdapter->ZKUpdateMemoryInformation("", common::META_NODE_STATUS_NONE, true), 0U);
  EXPECT_THAT(StatusMap(), UnorderedElementsAre(Pair("gone", kBroken), Pair("b", kAlive), Pair("c", kInit)));
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(false), 0U);
  mRaw->Set(kStatuses + "b", "1234567890123");
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["b"] == 1234567890; })) << "the watch reads 10 bytes";
  mLog.Clear();
  mRaw->Set(kStatuses + "b", "none");
  EXPECT_TRUE(WaitUntil([&] { return mLog.Texts(kInfoLine).size() == 2; }));
  EXPECT_EQ(StatusMap()["b"], 1234567890);
  for (const auto& value : {std::optional<std::string>("x"), std::optional<std::string>(""),
                            std::optional<std::string>("99999999999"), std::optional<std::string>()}) {
    mRaw->Create(kStatuses + "odd", value);
    EXPECT_EQ(mAdapter->ZKGetNodeWithStatusList(list), 1U);
    mRaw->Delete(kStatuses + "odd");
  }
  ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_CHANGED_EVENT, 0, "/meta/status",
                                            nullptr);
  EXPECT_EQ(StatusMap().size(), 3U) << "no node's path";
}

TEST(PutMetaIntoContainerTest, CutsAtEverySeparator) {
  struct Case {
    std::string list, separator;
    std::vector<std::string> names;
  };
  for (Case c : {Case{"a,b,a", ",", {"a", "b"}}, Case{"", ",", {""}}, Case{"a,,b", ",", {"", "a", "b"}},
                 Case{"a, b;c", "; ", {"a, b;c"}}, Case{"a::b", "::", {"a", "b"}}}) {
    Statuses nodes = {{"kept", kBroken}, {"a", kBroken}};
    Statuses expected = nodes;
    for (const std::string& name : c.names) {
      expected.emplace(name, kInit);
    }
    const std::string whole = c.list + c.separator;
    EXPECT_EQ(ClusterZKAdapter::PutMetaIntoContainer(c.list, c.separator, nodes), 0U);
    EXPECT_EQ(nodes, expected) << whole;
    EXPECT_EQ(c.list, whole);
  }
  std::string list = "a";
  Statuses nodes;
  EXPECT_EQ(ClusterZKAdapter::PutMetaIntoContainer(list, "", nodes), 1U);
}

}  // namespace
}  // namespace vyn::test
