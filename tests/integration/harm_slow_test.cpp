// Harm to a whole cluster under load: daemons and servers are killed and frozen while drivers write and
// executors read.

#include "support/broadcast_load.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iostream>
#include <random>

namespace vyn::test {
namespace {

constexpr const char* kLeaderPath = "/meta/election/leader_info";

class HarmTest : public testing::Test {
 protected:
  void SetUp() override {
    for (int id = 1; id <= 3; ++id) {
      mNodes.push_back(std::make_unique<VyndNode>(id, "127.0.0." + std::to_string(id), mUrl,
                                                  mMetadataPort.Number(), "127.0.0.1,127.0.0.2,127.0.0.3"));
      Start(*mNodes.back());
    }
    mLoad = std::make_unique<BroadcastLoad>(
        std::vector<VyndNode*>{mNodes[0].get(), mNodes[1].get(), mNodes[2].get()});
  }
  void Start(VyndNode& node) { node.Start("256M"); }
  /// Returns: the address of the leader, once there is one.
  std::string Leader() {
    std::string leader;
    EXPECT_TRUE(WaitUntil([&] {
      try {
        leader = RawZookeeper(mUrl).Get(kLeaderPath);
      } catch (const std::runtime_error&) {
        leader.clear();  // the ensemble elects
      }
      return leader.rfind("127.0.0.", 0) == 0;
    }));
    return leader;
  }
  ZookeeperServer& EnsembleLeader() {
    EXPECT_TRUE(WaitUntil([this] { return mEnsemble.HasLeader(); }));
    return mEnsemble.Leader();
  }
  VyndNode& LeadingNode() { return *mNodes.at(static_cast<std::size_t>(Leader().back() - '1')); }
  /// All is well again: nothing acknowledged is lost, and all memory comes back.
  void Finish() {
    mLoad->Stop();
    mLoad->Finish();
    EXPECT_EQ(mLoad->Faults(), "");
    EXPECT_GT(mLoad->Read(), 0U);
    std::cout << mLoad->Acknowledged() << " variables acknowledged, " << mLoad->Read() << " read under load, "
              << mLoad->Killed() << " clients killed in a call\n";
    for (const auto& node : mNodes) {
      node->Process().Signal(SIGTERM);
      EXPECT_EQ(node->Process().Wait(std::chrono::seconds(60)), 0);
    }
  }

  ZookeeperEnsemble mEnsemble;
  const std::string mUrl = mEnsemble.NewRoot();
  const ReservedPort mMetadataPort;
  std::vector<std::unique_ptr<VyndNode>> mNodes;
  std::unique_ptr<BroadcastLoad> mLoad;
};

TEST_F(HarmTest, ALeaderIsKilled) {
  ASSERT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  VyndNode& leader = LeadingNode();
  leader.Process().Kill();
  Start(leader);  // it waits for the old session's end, and serves its blocks again
  EXPECT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  Finish();
}

TEST_F(HarmTest, TheEnsembleLosesItsLeader) {
  ASSERT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  ZookeeperServer& server = EnsembleLeader();
  server.Kill();
  EXPECT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  server.Start();
  mEnsemble.WaitUntilComplete();
  EXPECT_TRUE(mLoad->Progress(5)) << mLoad->Faults();
  Finish();
}

TEST_F(HarmTest, TheLeadersSessionExpires) {
  ASSERT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  const std::string old = Leader();
  VyndNode& frozen = *mNodes.at(static_cast<std::size_t>(old.back() - '1'));
  const int id = old.back() - '0';
  const std::string registration = "/mf/node/" + std::to_string(id);
  const std::int64_t session = RawZookeeper(mUrl).Owner(registration);
  frozen.Process().Signal(SIGSTOP);
  EXPECT_TRUE(WaitUntil([&] { return Leader() != old; }));
  frozen.Process().Signal(SIGCONT);
  // It notices, connects again, and announces itself anew.
  EXPECT_TRUE(WaitUntil([&] {
    RawZookeeper tree(mUrl);
    return tree.Exists(registration) && tree.Owner(registration) != session;
  }));
  EXPECT_TRUE(mLoad->Progress(10)) << mLoad->Faults();
  Finish();
}

/// VYN_HARM_SECONDS sets how long it goes on.
TEST_F(HarmTest, RandomKills) {
  const char* wish = std::getenv("VYN_HARM_SECONDS");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wish ? std::atoi(wish) : 60);
  std::mt19937 random(std::random_device{}());
  ASSERT_TRUE(mLoad->Progress(5)) << mLoad->Faults();
  int kills = 0;
  while (std::chrono::steady_clock::now() < end) {
    VyndNode& node = random() % 3 == 0 ? LeadingNode() : *mNodes[random() % mNodes.size()];
    switch (random() % 4) {
      case 0:
      case 1:
        node.Process().Kill();
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1000));
        Start(node);
        break;
      case 2:
        node.Process().Signal(SIGSTOP);
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 3000));
        node.Process().Signal(SIGCONT);
        break;
      default: {
        ZookeeperServer& server = EnsembleLeader();
        server.Kill();
        std::this_thread::sleep_for(std::chrono::milliseconds(random() % 1000));
        server.Start();
        mEnsemble.WaitUntilComplete();
        break;
      }
    }
    ++kills;
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % 2000));
  }
  std::cout << kills << " times harm was done\n";
  EXPECT_GT(kills, 0);
  EXPECT_TRUE(mLoad->Progress(5)) << mLoad->Faults();
  Finish();
}

}  // namespace
}  // namespace vyn::test
