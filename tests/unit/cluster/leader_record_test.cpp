#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"

#include <gmock/gmock.h>

#include <thread>

namespace vyn::test {
namespace {

using cluster::ClusterZKAdapter;

constexpr const char* kLeader = "/meta/election/leader_info";

class LeaderRecordTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
  }
  void ReplaceLeader(const std::string& leader) {
    mRaw->Delete(kLeader);
    mRaw->Create(kLeader, leader);
  }
};

TEST_F(LeaderRecordTest, TheTextIsTakenByItsLength) {
  mMeta->mLeaderAddress = "old";
  EXPECT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta), 1U);
  EXPECT_EQ(LeaderAddress(), "old");
  EXPECT_TRUE(mLog.Has(kErrorLine,
                       "Failed to get cur meta leader info, ret: -101, zookeeper get error:no node (-101)"));
  EXPECT_TRUE(Audited("get_leader_info", false));

  struct Case {
    std::optional<std::string> value;
    std::string leader;
    bool warns;
  };
  for (const Case& c :
       {Case{"10.0.0.1:3892", "10.0.0.1:3892", false}, Case{"", "", false}, Case{std::nullopt, "", false},
        Case{std::string(30, 'a'), std::string(30, 'a'), false},
        Case{std::string(30, 'b') + "cut", std::string(30, 'b'), true}}) {
    mRaw->Create(kLeader, c.value);
    mLog.Clear();
    EXPECT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta), 0U);
    EXPECT_EQ(LeaderAddress(), c.leader);
    EXPECT_TRUE(
        mLog.Has(kInfoLine, "Get and update leader info from ZK Server to memory, leader ip: " + c.leader));
    EXPECT_EQ(mLog.Has(kWarnLine, "Leader info of 33 bytes is cut to 30 bytes: " + c.leader), c.warns);
    mRaw->Delete(kLeader);
  }
}

TEST_F(LeaderRecordTest, TheWatchNeedsALeader) {
  EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 2000055U);
  EXPECT_TRUE(
      mLog.Has(kErrorLine, "Check meta node exists failed, ret: -101, zookeeper get error:no node (-101)"));
  EXPECT_TRUE(Audited("set_leader_watcher", false));
  mRaw->Create(kLeader, "a");
  EXPECT_EQ(mAdapter->ZKRegisterWatcher(true), 0U);
}

TEST_F(LeaderRecordTest, ALeaderThatCameBetweenTheReadAndTheWatchIsSeen) {
  for (const bool leaderOnly : {true, false}) {
    mRaw->Create(kLeader, "first");
    ASSERT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta), 0U);
    ReplaceLeader("second");
    EXPECT_EQ(mAdapter->ZKRegisterWatcher(leaderOnly), leaderOnly ? 0U : 1U);  // no status tree
    EXPECT_EQ(LeaderAddress(), "second");
    mRaw->Delete(kLeader);
  }
}

TEST_F(LeaderRecordTest, ADeletionKeepsTheAddressUntilTheNextLeader) {
  mRaw->Create(kLeader, "first");
  ASSERT_EQ(mAdapter->ZKGetAndUpdateMetaLeaderInfo(mMeta), 0U);
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(true), 0U);
  mRaw->Delete(kLeader);
  const std::string path = std::string(", path: ") + kLeader;
  ASSERT_TRUE(WaitUntil([&] { return mLog.Has(kInfoLine, "MetaNodeLeaderWatcher: OTHER EVENT: 2" + path); }));
  EXPECT_EQ(LeaderAddress(), "first");
  mRaw->Create(kLeader, "second");
  ASSERT_TRUE(WaitUntil([&] { return LeaderAddress() == "second"; }));
  EXPECT_TRUE(mLog.Has(kInfoLine, "MetaNodeLeaderWatcher: ZOO_CREATED_EVENT: 1" + path));

  // A value that is written over the old one is a new leader as well.
  mRaw->Set(kLeader, "third");
  EXPECT_TRUE(WaitUntil([&] { return LeaderAddress() == "third"; }));
}

TEST_F(LeaderRecordTest, EveryLeaderOfManyFastOnesIsSeenWhileOthersHoldTheLock) {
  mRaw->Create(kLeader, "0");
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(true), 0U);
  std::atomic<bool> stop{false};
  std::vector<std::jthread> busy;
  for (int i = 0; i < 3; ++i) {
    busy.emplace_back([&] {
      while (!stop) {
        {
          std::lock_guard lock(ClusterZKAdapter::mZKHandleLock);
          EXPECT_EQ(mAdapter->ClusterZKCheckAvailable(), 0U);
        }
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    });
  }
  for (int i = 1; i <= 200; ++i) {
    {
      // The watch cannot stand again in between, and no created event comes.
      std::lock_guard lock(ClusterZKAdapter::mZKHandleLock);
      ReplaceLeader(std::to_string(i));
    }
    ASSERT_TRUE(WaitUntil([&] { return LeaderAddress() == std::to_string(i); })) << i;
  }
  stop = true;
}

TEST_F(LeaderRecordTest, ALeaderOfTheTimeWithoutConnectionIsSeen) {
  mRaw->Create(kLeader, "before");
  ASSERT_EQ(mAdapter->ZKRegisterWatcher(true), 0U);
  const clientid_t session = DoDlZooClientId(cluster::g_ZKHandler);
  for (const char* leader : {"first", "second"}) {
    gServer->Kill();
    ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() != 0U; }));
    gServer->Start();
    gServer->WaitUntilServing();
    mRaw = std::make_unique<RawZookeeper>(mUrl);
    ReplaceLeader(leader);
    EXPECT_TRUE(WaitUntil([&] { return LeaderAddress() == leader; })) << leader;
  }
  EXPECT_EQ(DoDlZooClientId(cluster::g_ZKHandler).client_id, session.client_id);
}

TEST_F(LeaderRecordTest, WatchersRestWhenTheDaemonStops) {
  mRaw->Create(kLeader, "first");
  ClusterZKAdapter::isRunning = false;
  ClusterZKAdapter::MetaNodeLeaderWatchFunc(cluster::g_ZKHandler, ZOO_CREATED_EVENT, 0, kLeader, nullptr);
  EXPECT_EQ(LeaderAddress(), "");
  ClusterZKAdapter::isRunning = true;
  ClusterZKAdapter::MetaNodeLeaderWatchFunc(cluster::g_ZKHandler, ZOO_CREATED_EVENT, 0, kLeader, nullptr);
  EXPECT_EQ(LeaderAddress(), "first");
  mAdapter->ClusterZKClose();
  mLog.Clear();
  ClusterZKAdapter::MetaNodeLeaderWatchFunc(nullptr, ZOO_CREATED_EVENT, 0, kLeader, nullptr);
  EXPECT_TRUE(mLog.Has(kInfoLine, "Unexpected nullptr value for g_ZKHandler"));
}

}  // namespace
}  // namespace vyn::test
