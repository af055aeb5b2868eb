#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"
#include "support/fake_clock.h"
#include "support/zookeeper_calls.h"

namespace vyn::test {
namespace {

using common::MetaNodeRole;
using namespace std::chrono_literals;
using Sleeps = std::vector<std::chrono::nanoseconds>;

constexpr const char* kLeader = "/meta/election/leader_info";
constexpr const char* kFollower = "/meta/election/follower_info/me:1";
constexpr const char* kMutex = "/meta/mutex";

class ElectionTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    Connect();
    mMeta->mNodeAddress = "me:1";
    mOwn = DoDlZooClientId(cluster::g_ZKHandler).client_id;
  }

  std::int64_t mOwn = 0;
};

TEST_F(ElectionTest, EveryRowOfTheRoundsTable) {
  mRaw->Create("/meta/status/me:1", "2");
  mRaw->Create("/meta/status/other:1", "2");
  for (const auto before : {MetaNodeRole::LOOKING, MetaNodeRole::LEADER, MetaNodeRole::FOLLOWER}) {
    for (const bool won : {true, false}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(before)) + (won ? " won" : " lost"));
      mMeta->mMetaNodeRole = before;
      mMeta->mLeaderAddress = "other:1";
      mMeta->mNodeStatusMap.clear();
      mRaw->Set("/meta/status/other:1", "2");
      if (!won) {
        mRaw->Create(kLeader, "third:1");
      }
      ASSERT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
      EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 0U);
      EXPECT_EQ(mMeta->mMetaNodeRole, won ? MetaNodeRole::LEADER : MetaNodeRole::FOLLOWER);
      EXPECT_EQ(mRaw->Get(kLeader), won ? "me:1" : "third:1");
      EXPECT_EQ(mRaw->Owner(kLeader), won ? mOwn : 0);
      const bool takesOver = before == MetaNodeRole::FOLLOWER && won;
      EXPECT_EQ(mRaw->Get("/meta/status/other:1"), takesOver ? "3" : "2");
      EXPECT_EQ(mRaw->Exists(kFollower), !takesOver);
      const bool learns = before != MetaNodeRole::FOLLOWER && !won;
      EXPECT_EQ(LeaderAddress(), before == MetaNodeRole::LOOKING && won ? "me:1"
                                 : learns                               ? "third:1"
                                                                        : "other:1");
      EXPECT_EQ(StatusMap().size(), learns ? 2U : 0U);
      mRaw->Delete(kLeader);
    }
  }
}

TEST_F(ElectionTest, ARoundThatFailsHalfWay) {
  // No status tree: the old leader cannot be marked, the role stays.
  mMeta->mMetaNodeRole = MetaNodeRole::FOLLOWER;
  mMeta->mLeaderAddress = "other:1";
  EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 1U);
  EXPECT_EQ(mMeta->mMetaNodeRole, MetaNodeRole::LEADER);
  // Its own claim stands: the next round is lost to it.
  EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 1U);
  EXPECT_EQ(mMeta->mMetaNodeRole, MetaNodeRole::FOLLOWER);
  // Without the parents the attempt itself fails, and no role changes.
  mRaw->Delete(kLeader);
  mRaw->Delete("/meta/election/follower_info");
  mRaw->Delete("/meta/election");
  EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 1U);
  EXPECT_EQ(mMeta->mMetaNodeRole, MetaNodeRole::FOLLOWER);
}

TEST_F(ElectionTest, ARoundWithoutAnAnswerIsALostOne) {
  for (const int result : {int{ZCONNECTIONLOSS}, int{ZOPERATIONTIMEOUT}}) {
    const ZookeeperCalls calls(
        [&](const ZookeeperCall& call) { return call.function == "DoDlZooCreate" ? result : call.make(); });
    mLog.Clear();
    bool won = true;
    EXPECT_EQ(mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won), 0U);
    EXPECT_FALSE(won);
    EXPECT_EQ(mLog.Texts(kWarnLine).size(), 1U);
    // The round ends as follower; what it cannot learn, for there is no leader, makes it fail.
    mMeta->mMetaNodeRole = MetaNodeRole::LOOKING;
    EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 1U);
    EXPECT_EQ(mMeta->mMetaNodeRole, MetaNodeRole::FOLLOWER);
  }
}

TEST_F(ElectionTest, ClaimsAreGivenUp) {
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionLeader(), 1U) << "it has none";
  bool won = false;
  ASSERT_EQ(mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won), 0U);
  EXPECT_TRUE(won);
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionLeader(), 0U);
  EXPECT_FALSE(mRaw->Exists(kLeader));

  EXPECT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
  EXPECT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
  EXPECT_TRUE(Audited("create_follower_path", true));
  EXPECT_EQ(mRaw->Owner(kFollower), mOwn);
  EXPECT_EQ(mRaw->Get(kFollower), "(null)");
  for (const char* time : {"first", "repeated"}) {
    EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionFollower(kFollower), 0U) << time;
    EXPECT_FALSE(mRaw->Exists(kFollower));
  }
  EXPECT_EQ(mLog.Texts(kErrorLine).size(), 0U);
}

TEST_F(ElectionTest, TheSetUpMutexIsWaitedForUpToFiveMinutes) {
  struct Case {
    const char* what;
    std::size_t freeAfter;  ///< sleeps of another holder; 0: nobody holds it
    int lostReplies;
    std::uint32_t status;
    std::size_t sleeps;
  };
  for (const Case& c :
       {Case{"free", 0, 0, 0, 0}, Case{"its own, the replies were lost", 0, 2, 0, 0},
        Case{"free after 300 s: the last attempt", 60, 0, 0, 60}, Case{"held for ever", 1000, 0, 1, 61},
        Case{"another's, and a reply was lost", 1000, 1, 1, 61}}) {
    SCOPED_TRACE(c.what);
    FakeClock clock;
    if (c.freeAfter != 0) {
      mRaw->Create(kMutex);
    }
    int lost = c.lostReplies;
    const ZookeeperCalls calls([&](const ZookeeperCall& call) {
      if (call.function == "DoDlZooCreate" && c.freeAfter != 0 && clock.Sleeps().size() == c.freeAfter) {
        mRaw->Delete(kMutex);
      }
      const int result = call.make();
      return call.function == "DoDlZooCreate" && lost-- > 0 ? int{ZOPERATIONTIMEOUT} : result;
    });
    EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), c.status);
    EXPECT_EQ(clock.Sleeps(), Sleeps(c.sleeps, 5s));
    EXPECT_EQ(mRaw->Owner(kMutex), c.status == 0 ? mOwn : 0);
    EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U);
    EXPECT_FALSE(Audited("delete_meta_mutex", true));
  }
  EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U) << "it has gone already";
  EXPECT_TRUE(Audited("delete_meta_mutex", true));
}

}  // namespace
}  // namespace vyn::test
