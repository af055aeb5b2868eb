// The election between processes, and a session that outlives the leader of the ensemble.

#include "support/child_process.h"
#include "support/cluster_test.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

namespace vyn::test {
namespace {

constexpr const char* kLeader = "/meta/election/leader_info";
constexpr const char* kFollowers = "/meta/election/follower_info";

struct Member {
  Member(const std::string& url, std::string node) : mNode(std::move(node)) {
    mProcess = ChildProcess({VYN_TEST_PROGRAM_DIR "/zookeeper_member", url, mNode, "3000"});
    EXPECT_EQ(mProcess.Receive(), "0");
  }
  std::string mNode;
  ChildProcess mProcess;
};

TEST(ElectionBetweenProcessesTest, OneWinsAndTheOtherTakesOverWhenItIsKilled) {
  ZookeeperServer server;
  const std::string url = server.NewRoot();
  RawZookeeper raw(url);
  raw.Create(kFollowers);
  Member members[] = {{url, "10.0.0.1:3892"}, {url, "10.0.0.2:3892"}};
  for (const Member& member : members) {
    raw.Create("/meta/status/" + member.mNode, "2");
  }
  for (Member& member : members) {
    member.mProcess.Send("round");
  }
  const std::string answers[] = {members[0].mProcess.Receive(), members[1].mProcess.Receive()};
  const std::string winner = raw.Get(kLeader);
  const bool firstWon = winner == members[0].mNode;
  Member& leader = members[firstWon ? 0 : 1];
  Member& follower = members[firstWon ? 1 : 0];
  EXPECT_EQ(winner, leader.mNode);
  EXPECT_EQ(answers[firstWon ? 0 : 1], "0 1 " + winner);
  EXPECT_EQ(answers[firstWon ? 1 : 0], "0 2 " + winner);

  EXPECT_EQ(follower.mProcess.Ask("follow"), "0 0");
  EXPECT_THAT(raw.Children(kFollowers), testing::ElementsAre(follower.mNode));
  EXPECT_EQ(follower.mProcess.Ask("round"), "0 2 " + winner);

  leader.mProcess.Kill();
  const auto killed = std::chrono::steady_clock::now();
  ASSERT_TRUE(WaitUntil([&] { return raw.Get(kLeader) == "(none)"; }));
  // Within the session time-out, the server's rounding to its ticks, and what a loaded machine adds.
  EXPECT_LT(std::chrono::steady_clock::now() - killed, std::chrono::seconds(30));
  EXPECT_EQ(follower.mProcess.Ask("leader"), winner);
  EXPECT_EQ(follower.mProcess.Ask("round").substr(0, 3), "0 1");
  EXPECT_EQ(raw.Get(kLeader), follower.mNode);
  EXPECT_EQ(raw.Get("/meta/status/" + leader.mNode), "3");
  EXPECT_EQ(raw.Get("/meta/status/" + follower.mNode), "2");
  EXPECT_THAT(raw.Children(kFollowers), testing::IsEmpty());
  EXPECT_TRUE(WaitUntil([&] { return follower.mProcess.Ask("leader") == follower.mNode; }));

  // A process that ends gives its claim up at once.
  EXPECT_EQ(follower.mProcess.Wait(), 0);
  EXPECT_EQ(raw.Get(kLeader), "(none)");
}

TEST(EnsembleTest, ASessionOutlivesTheLeaderOfTheEnsemble) {
  ZookeeperEnsemble ensemble;
  const std::string url = ensemble.NewRoot();
  UseZookeeper(url);
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  const auto meta = common::MetaNodeInfo::GetInstance();
  meta->mNodeAddress = "me:1";
  ASSERT_EQ(adapter->ClusterZKAdapterInit(30000), 0U);
  ASSERT_EQ(adapter->ClusterZKMakeDir(), 0U);
  ASSERT_EQ(adapter->ZKCreateMetaElectionFollower(meta), 0U);
  bool won = false;
  ASSERT_EQ(adapter->ZKTryBecomeMetaElectionLeader(meta, won), 0U);
  ASSERT_EQ(adapter->ZKRegisterWatcher(true), 0U);
  const std::int64_t session = DoDlZooClientId(cluster::g_ZKHandler).client_id;

  std::atomic<bool> stop{false};
  std::atomic<int> good{0};
  std::mutex mutex;
  std::set<std::uint32_t> results;
  std::vector<std::jthread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      while (!stop) {
        const std::uint32_t result = adapter->ClusterZKCheckAvailable();
        good += result == 0U ? 1 : 0;
        std::lock_guard lock(mutex);
        results.insert(result);
      }
    });
  }
  EXPECT_TRUE(WaitUntil([&] { return good > 10; }));
  ZookeeperServer& killed = ensemble.Leader();
  killed.Kill();
  EXPECT_TRUE(WaitUntil([&] { return ensemble.HasLeader(); }));
  const int before = good;
  EXPECT_TRUE(WaitUntil([&] { return good > before + 10; }));
  stop = true;
  threads.clear();
  EXPECT_THAT(results, testing::Each(testing::AnyOf(0U, 2000047U, 2000049U)));
  EXPECT_EQ(DoDlZooClientId(cluster::g_ZKHandler).client_id, session);
  RawZookeeper raw(url);
  EXPECT_EQ(raw.Owner(kLeader), session);
  EXPECT_EQ(raw.Owner(std::string(kFollowers) + "/me:1"), session);

  killed.Start();
  ensemble.WaitUntilComplete();
  // The watch still stands: a leader that follows is seen.
  raw.Delete(kLeader);
  raw.Create(kLeader, "other:1");
  EXPECT_TRUE(WaitUntil([&] {
    std::shared_lock lock(meta->mLeaderLock);
    return meta->mLeaderAddress == "other:1";
  }));
  EXPECT_EQ(adapter->ClusterZKClose(), 0U);
}

}  // namespace
}  // namespace vyn::test
