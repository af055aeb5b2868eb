#include "cluster/cluster_zkadapter.h"
#include "support/fake_clock.h"
#include "support/zookeeper/cluster_test.h"
#include "support/zookeeper/zookeeper_calls.h"

namespace vyn::test {
namespace {

using common::MetaNodeRole;
using namespace std::chrono_literals;

constexpr const char* kLeader = "/meta/election/leader_info";
constexpr const char* kFollower = "/meta/election/follower_info/me:1";
constexpr const char* kMutex = "/meta/mutex";

class ElectionTest : public ClusterTest {
 protected:
  void SetUp() override {
    ClusterTest::SetUp();
    mMeta->mNodeAddress = "me:1";
    mOwn = DoDlZooClientId(cluster::g_ZKHandler).client_id;
  }

  std::int64_t mOwn = 0;
};

TEST_F(ElectionTest, AnElectionRoundSetsRoleLeaderAndStatusForEveryStartingRole) {
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
      EXPECT_EQ(mRaw->Owner(kFollower), mOwn);
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

TEST_F(ElectionTest, SetUpWaitsUpToFiveMinutesForTheMutex) {
  struct Case {
    const char* what;
    std::size_t freeAfter;  ///< sleeps of another holder; 0: nobody holds it
    int lostReplies;
    std::uint32_t status;
    std::size_t sleeps;
  };
  for (const Case& c : {Case{"its own, the replies were lost", 0, 2, 0, 0},
                        Case{"free after 300 s: the last attempt", 60, 0, 0, 60},
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
    EXPECT_EQ(clock.Sleeps(), std::vector<std::chrono::nanoseconds>(c.sleeps, 5s));
    EXPECT_EQ(mRaw->Owner(kMutex), c.status == 0 ? mOwn : 0);
    EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U);
  }
}

}  // namespace
}  // namespace vyn::test
