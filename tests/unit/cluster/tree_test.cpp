// The watches and what they keep in memory: random changes of the tree against a model of both, and by hand what
// a lost connection hides.

#include "cluster/cluster_zkadapter.h"
#include "support/random_steps.h"
#include "support/zookeeper/cluster_test.h"

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;
using cluster::MetaNodeStatus;
using Statuses = std::map<std::string, MetaNodeStatus>;

constexpr auto kNone = common::META_NODE_STATUS_NONE;
constexpr auto kInit = common::META_NODE_STATUS_INIT;
constexpr auto kAlive = common::META_NODE_STATUS_ALIVE;
constexpr auto kBroken = common::META_NODE_STATUS_BROKEN;
const std::string kLeader = "/meta/election/leader_info";
const std::string kFollowers = "/meta/election/follower_info/";
const std::string kStatuses = "/meta/status/";

class TreeTest : public ClusterTest {
 protected:
  void RestartServer(const std::function<void()>& meanwhile) {
    gServer->Kill();
    ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 2000049U; }));
    meanwhile();
    gServer->Start();
    gServer->WaitUntilServing();
    mRaw = std::make_unique<RawZookeeper>(mUrl);
  }
  void SetStatus(const std::string& name, MetaNodeStatus status) {
    mRaw->Set(kStatuses + name, std::to_string(status));
    mStatuses[name] = status;
  }
  /// Makes a leader of a follower, or of a node that has gone, as a take-over does.
  void ChangeLeader(const std::string& name, bool overwrite) {
    if (overwrite) {
      mRaw->Set(kLeader, name);
    } else {
      mRaw->Delete(kLeader);
      mRaw->Create(kLeader, name);
    }
    SetStatus(mLeader, kBroken);
    if (mFollowers.erase(name) != 0) {
      mRaw->Delete(kFollowers + name);
    }
    mLeader = name;
  }
  /// One change of a node that nothing else changes until memory has followed: what is expected then does not
  /// depend on when the watchers run.
  void Change(RandomSteps& random, const std::string& name, bool locked) {
    const bool follows = mFollowers.contains(name);
    // A node that is alive, and neither follows nor leads, would be marked at any time.
    const auto status = follows || name == mLeader
                            ? random.Pick<MetaNodeStatus>({kInit, kAlive, kAlive, kBroken})
                            : random.Pick<MetaNodeStatus>({kInit, kBroken});
    const std::uint32_t change = random.Number(name == mLeader ? 2 : 5);
    random.Note(name, "change", change, "status", status);
    if (change == 0) {
      SetStatus(name, status);
    } else if (change == 1) {
      mRaw->Delete(kStatuses + name);
      mRaw->Create(kStatuses + name, std::to_string(status));
      mStatuses[name] = status;
    } else if (change == 2) {
      ChangeLeader(name, !locked);
    } else if (follows) {
      mFollowers.erase(name);
      mRaw->Delete(kFollowers + name);
      mStatuses[name] = mStatuses[name] == kAlive ? kBroken : mStatuses[name];
    } else {
      mFollowers.insert(name);
      mRaw->Create(kFollowers + name);
      SetStatus(name, kAlive);
    }
  }
  /// Several changes, of a node each.
  void Burst(RandomSteps& random) {
    std::unique_lock lock(ClusterZKAdapter::mZKHandleLock, std::defer_lock);
    if (random.OneIn(2)) {
      lock.lock();  // no watcher runs before the end
    }
    const std::string leader = mLeader;
    for (auto node = mStatuses.begin(); node != mStatuses.end() && mLeader == leader; ++node) {
      if (random.OneIn(2)) {
        Change(random, node->first, lock.owns_lock());
      }
    }
  }
  bool Settled() {
    return std::all_of(mStatuses.begin(), mStatuses.end(),
                       [&](const auto& node) {
                         return mRaw->Get(kStatuses + node.first) == std::to_string(node.second);
                       }) &&
           StatusMap() == mStatuses && LeaderAddress() == mLeader;
  }

  std::string mLeader = "n0";
  std::set<std::string> mFollowers;
  Statuses mStatuses;
};

TEST_F(TreeTest, TheWatchesKeepMemoryEqualToTheTree) {
  Connect(mUrl, 15000);  // a call may take two thirds of it while the server restarts
  mRaw->Create(kLeader, mLeader);
  for (const char* name : {"n0", "n1", "n2", "n3", "n4"}) {
    mStatuses[name] = kInit;
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
      ASSERT_EQ(mAdapter->ZKUpdateMemoryInformation("", kNone, true), 0U);
      ChangeLeader(mLeader == "n1" ? "n2" : "n1", false);
      EXPECT_EQ(mAdapter->ZKRegisterWatcher(seed % 2 == 0), 0U);
      EXPECT_EQ(LeaderAddress(), mLeader);
      EXPECT_EQ(mAdapter->ZKRegisterWatcher(false), 0U);
      ASSERT_EQ(mAdapter->ZKUpdateMemoryInformation("", kNone, true), 0U);
    }
    for (int i = 0; i < 60; ++i) {
      if (i == 30 && seed % 3 == 1) {
        random.Note("the server restarts");
        RestartServer([] {});
      }
      if (random.OneIn(8)) {
        random.Note("nobody leads for a moment");
        ChangeLeader(mLeader == "n3" ? "n4" : "n3", false);
      } else {
        Burst(random);
      }
      ASSERT_TRUE(WaitUntil([this] { return Settled(); }, std::chrono::seconds(30)))
          << random.Story() << "leader " << LeaderAddress() << ", expected " << mLeader << ", memory "
          << testing::PrintToString(StatusMap());
    }
  }
}

// Setting a watch fails while the connection is lost. Its watcher is told once the connection is back, and acts
// on what it reads then: no event tells of what has happened before.
TEST_F(TreeTest, TheWatchesApplyAChangeMadeDuringALostConnection) {
  Statuses nodes = {{"gone", kInit}, {"here", kInit}};
  ASSERT_EQ(mAdapter->ZKCreateStatus(nodes), 0U);
  SetStatus("here", kAlive);
  mRaw->Create(kLeader, "leader");
  mRaw->Create(kFollowers + "here");
  const Statuses before = {{"gone", kAlive}, {"here", kInit}};
  mMeta->mNodeStatusMap = before;
  RestartServer([&] {
    ClusterZKAdapter::MetaNodeFollowerWatchFunc(cluster::g_ZKHandler, ZOO_CHILD_EVENT, 0, "", nullptr);
    ClusterZKAdapter::MetaNodeStatusWatchFunc(cluster::g_ZKHandler, ZOO_CHANGED_EVENT, 0, "/meta/status/here",
                                              nullptr);
    EXPECT_EQ(StatusMap(), before) << "nobody could be asked";
  });
  EXPECT_TRUE(WaitUntil([&] { return mRaw->Get(kStatuses + "gone") == "3"; }));
  EXPECT_TRUE(WaitUntil([&] { return StatusMap()["here"] == kAlive; }));
  EXPECT_EQ(mRaw->Get(kStatuses + "here"), "2");
}

}  // namespace
}  // namespace vyn::test
