#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"
#include "support/fake_clock.h"

#include <dlfcn.h>
#include <gmock/gmock.h>

namespace {
int gLostReplies = 0;
}

// Found before the helper's own: the server does what it was asked, and the reply is lost on its way.
extern "C" int DoDlZooCreate(zhandle_t* handle, const char* path, const char* value, int valueLength,
                             const ACL_vector* acl, int flags, char* pathBuffer, int pathBufferLength) {
  static const auto real = reinterpret_cast<decltype(&DoDlZooCreate)>(dlsym(RTLD_NEXT, "DoDlZooCreate"));
  const int result = real(handle, path, value, valueLength, acl, flags, pathBuffer, pathBufferLength);
  if (gLostReplies == 0) {
    return result;
  }
  --gLostReplies;
  return ZOPERATIONTIMEOUT;
}

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
    Connect();
    mMeta->mNodeAddress = "me:1";
    mOwn = DoDlZooClientId(cluster::g_ZKHandler).client_id;
  }

  std::int64_t mOwn = 0;
};

TEST_F(ElectionTest, EveryRowOfTheRoundsTable) {
  mRaw->Create("/meta/status/me:1", "2");
  mRaw->Create("/meta/status/other:1", "2");
  struct Case {
    MetaNodeRole before;
    bool won;
    MetaNodeRole after;
    int level;
    const char* message;
  };
  const Case cases[] = {
      {MetaNodeRole::LOOKING, true, MetaNodeRole::LEADER, kInfoLine,
       "Current metadata node changed from LOOKING to LEADER"},
      {MetaNodeRole::LEADER, true, MetaNodeRole::LEADER, kWarnLine,
       "Current metadata node changed from LEADER to LEADER, do nothing"},
      {MetaNodeRole::FOLLOWER, true, MetaNodeRole::LEADER, kInfoLine,
       "Current metadata node changed from FOLLOWER to LEADER"},
      {MetaNodeRole::LOOKING, false, MetaNodeRole::FOLLOWER, kInfoLine,
       "Current metadata node changed from LOOKING to FOLLOWER"},
      {MetaNodeRole::LEADER, false, MetaNodeRole::FOLLOWER, kInfoLine,
       "Current metadata node changed from LEADER to FOLLOWER"},
      {MetaNodeRole::FOLLOWER, false, MetaNodeRole::FOLLOWER, kDebugLine,
       "Current metadata node is FOLLOWER, waiting for become LEADER, do nothing"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    mLog.Clear();
    mMeta->mMetaNodeRole = c.before;
    mMeta->mLeaderAddress = "other:1";
    mMeta->mNodeStatusMap.clear();
    mRaw->Set("/meta/status/other:1", "2");
    if (!c.won) {
      mRaw->Create(kLeader, "third:1");
    }
    ASSERT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
    EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 0U);
    EXPECT_EQ(mMeta->mMetaNodeRole, c.after);
    EXPECT_TRUE(mLog.Has(c.level, c.message));
    EXPECT_EQ(mRaw->Get(kLeader), c.won ? "me:1" : "third:1");
    EXPECT_EQ(mRaw->Owner(kLeader), c.won ? mOwn : 0);

    const bool takesOver = c.before == MetaNodeRole::FOLLOWER && c.won;
    EXPECT_EQ(mRaw->Get("/meta/status/other:1"), takesOver ? "3" : "2");
    EXPECT_EQ(mRaw->Exists(kFollower), !takesOver);
    const bool first = c.before == MetaNodeRole::LOOKING && c.won;
    const bool learns = c.before != MetaNodeRole::FOLLOWER && !c.won;
    EXPECT_EQ(LeaderAddress(), first ? "me:1" : learns ? "third:1" : "other:1");
    EXPECT_EQ(StatusMap().size(), learns ? 2U : 0U);
    mRaw->Delete(kLeader);
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
  EXPECT_TRUE(Audited("elect_leader", false));
  EXPECT_TRUE(
      mLog.Has(kErrorLine,
               "Create Meta leader node of path: /meta/election/leader_info failed, ret is: -101, zookeeper "
               "get error:no node (-101)"));
}

TEST_F(ElectionTest, ALostConnectionIsALostRoundAndCounted) {
  mAdapter->ClusterZKClose();
  Connect(15000);  // a call may take two thirds of it, and the session must outlive the restart of the server
  gServer->Kill();
  const auto lose = [&](int count) {
    bool won = true;
    ASSERT_EQ(mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won), 0U);
    EXPECT_FALSE(won);
    const auto warnings = mLog.Texts(kWarnLine);
    ASSERT_FALSE(warnings.empty());
    EXPECT_THAT(warnings.back(),
                testing::MatchesRegex("Create Meta leader of path: /meta/election/leader_info timeout, "
                                      "ret is: -[47] retry: " +
                                      std::to_string(count)));
  };
  lose(1);
  lose(2);
  // A round while ZooKeeper is away ends as follower; what it cannot learn makes it fail.
  EXPECT_EQ(mAdapter->ZKElectionOperate(mMeta), 1U);
  EXPECT_EQ(mMeta->mMetaNodeRole, MetaNodeRole::FOLLOWER);
  gServer->Start();
  ASSERT_TRUE(WaitUntil([&] { return mAdapter->ClusterZKCheckAvailable() == 0U; }));
  bool won = false;
  EXPECT_EQ(mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won), 0U);
  gServer->Kill();
  lose(1);
  gServer->Start();
}

TEST_F(ElectionTest, ClaimsAreGivenUp) {
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionLeader(), 1U);
  EXPECT_TRUE(
      mLog.Has(kWarnLine, "Meta leader has been removed by zookeeper before vynd voluntarily remove"));
  bool won = false;
  ASSERT_EQ(mAdapter->ZKTryBecomeMetaElectionLeader(mMeta, won), 0U);
  EXPECT_TRUE(won);
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionLeader(), 0U);
  EXPECT_TRUE(mLog.Has(kInfoLine, "Success to delete meta leader information in zookeeper"));
  EXPECT_FALSE(mRaw->Exists(kLeader));

  EXPECT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
  EXPECT_EQ(mAdapter->ZKCreateMetaElectionFollower(mMeta), 0U);
  EXPECT_TRUE(Audited("create_follower_path", true));
  EXPECT_EQ(mRaw->Owner(kFollower), mOwn);
  EXPECT_EQ(mRaw->Get(kFollower), "(null)");
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionFollower(kFollower), 0U);
  EXPECT_FALSE(mRaw->Exists(kFollower));
  EXPECT_EQ(mAdapter->ZKTryDeleteMetaElectionFollower(kFollower), 0U);
  EXPECT_TRUE(Audited("delete_follower", false));
  EXPECT_TRUE(
      mLog.Has(kWarnLine,
               "Failed to delete follower node from path: /meta/election/follower_info/me:1, zookeeper get "
               "error:no node (-101)"));
}

TEST_F(ElectionTest, TheSetUpMutexIsTakenAndGivenBack) {
  FakeClock clock;
  EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 0U);
  EXPECT_TRUE(
      mLog.Has(kInfoLine, "Success to get&create metadata zookeeper mutex, start to create meta status"));
  EXPECT_EQ(mRaw->Owner(kMutex), mOwn);
  EXPECT_TRUE(clock.Sleeps().empty());
  EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U);
  EXPECT_TRUE(mLog.Has(kInfoLine, "Pass the clear process of /meta/mutex, ret is: 0"));
  EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U);
  EXPECT_TRUE(Audited("delete_meta_mutex", true));
  EXPECT_TRUE(mLog.Has(
      kWarnLine, "Meta mutex has already been cleared by others, maybe mutex has no effect, ret is << -101"));
  mRaw->Create("/meta/mutex/child");
  EXPECT_EQ(mAdapter->ZKReleaseMetaMutex(), 1U);
  EXPECT_TRUE(Audited("delete_meta_mutex", false));
  EXPECT_TRUE(mLog.Has(kErrorLine,
                       "Failed to clear /meta/mutex, ret is: -111, zookeeper get error:not empty (-111)"));
}

TEST_F(ElectionTest, AMutexWhoseReplyWasLostIsNotWaitedFor) {
  FakeClock clock;
  gLostReplies = 2;
  EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 0U);
  EXPECT_TRUE(Audited("create_status_dynamic", false));
  EXPECT_TRUE(clock.Sleeps().empty());
  EXPECT_EQ(mRaw->Owner(kMutex), mOwn);
  mRaw->Delete(kMutex);

  mRaw->Create(kMutex);  // another's, and a reply is lost all the same
  gLostReplies = 1;
  EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 1U);
  EXPECT_EQ(clock.Sleeps(), std::vector<std::chrono::nanoseconds>(61, 5s));
}

TEST_F(ElectionTest, AHeldMutexIsWaitedForUpToFiveMinutes) {
  /// Gives the mutex free in the sleep with this number.
  struct Holder : FakeClock {
    Holder(RawZookeeper& raw, std::size_t last) : mRaw(raw), mLast(last) { mRaw.Create(kMutex); }
    void SleepFor(std::chrono::nanoseconds duration) override {
      FakeClock::SleepFor(duration);
      if (Sleeps().size() == mLast) {
        mRaw.Delete(kMutex);
      }
    }
    RawZookeeper& mRaw;
    std::size_t mLast;
  };
  {
    Holder holder(*mRaw, 60);  // free after 300 seconds: the last attempt
    EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 0U);
    EXPECT_EQ(holder.Sleeps(), std::vector<std::chrono::nanoseconds>(60, 5s));
  }
  ASSERT_EQ(mAdapter->ZKReleaseMetaMutex(), 0U);
  EXPECT_FALSE(Audited("create_status_dynamic", false));
  {
    Holder holder(*mRaw, 100);
    EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 1U);
    EXPECT_EQ(holder.Sleeps(), std::vector<std::chrono::nanoseconds>(61, 5s));
  }
  EXPECT_TRUE(Audited("create_status_dynamic", false));
  EXPECT_TRUE(
      mLog.Has(kErrorLine, "Time out for create metadata service. timeout is: 300(s), has processed 305(s)"));

  mRaw->Delete(kMutex);
  mRaw->Delete("/meta/election/follower_info");
  mRaw->Delete("/meta/election");
  mRaw->Delete("/meta");
  EXPECT_EQ(mAdapter->ZKWaitAndCreateMetaMutex(), 1U);
  EXPECT_TRUE(mLog.Has(kErrorLine, "Failed to create metadata zookeeper mutex. ret is -101no node (-101)"));
}

}  // namespace
}  // namespace vyn::test
