// Harm to a whole cluster under load: daemons and servers are killed and frozen while drivers write and
// executors read.

#include "integration/broadcast_load.h"
#include "support/test.h"

namespace vyn::test {
namespace {

class HarmTest : public testing::Test {
 protected:
  void SetUp() override {
    for (int id = 1; id <= 3; ++id) {
      mNodes.push_back(std::make_unique<VyndNode>(id, "127.0.0." + std::to_string(id), mUrl,
                                                  mMetadataPort.Number(), "127.0.0.1,127.0.0.2,127.0.0.3"));
      mNodes.back()->Start("256M");
    }
    mLoad = std::make_unique<BroadcastLoad>(
        std::vector<VyndNode*>{mNodes[0].get(), mNodes[1].get(), mNodes[2].get()});
    Progress();
  }
  /// All is well again: nothing acknowledged is lost, and all memory comes back.
  void TearDown() override {
    mLoad->Finish();
    EXPECT_GT(mLoad->mRead, 0U);
    std::cout << mLoad->mAcknowledged << " variables acknowledged, " << mLoad->mRead << " read under load, "
              << mLoad->mKilled << " clients killed in a call\n";
    for (const auto& node : mNodes) {
      node->Process().Signal(SIGTERM);
      EXPECT_EQ(node->Process().Wait(), 0);
    }
  }
  void Progress() { EXPECT_TRUE(mLoad->Progress(8)); }

  /// Returns: the address of the leader, once there is one.
  std::string Leader() {
    std::string leader;
    EXPECT_TRUE(WaitUntil([&] {
      try {
        leader = RawZookeeper(mUrl).Get("/meta/election/leader_info");
      } catch (const std::runtime_error&) {
        leader.clear();  // the ensemble elects
      }
      return leader.rfind("127.0.0.", 0) == 0;
    }));
    return leader;
  }
  VyndNode& LeadingNode() { return *mNodes.at(static_cast<std::size_t>(Leader().back() - '1')); }
  void KillEnsembleLeader(const std::function<void()>& meanwhile) {
    EXPECT_TRUE(WaitUntil([this] { return mEnsemble.HasLeader(); }));
    ZookeeperServer& server = mEnsemble.Leader();
    server.Kill();
    meanwhile();
    server.Start();
    mEnsemble.WaitUntilComplete();
  }

  ZookeeperEnsemble mEnsemble;
  const std::string mUrl = mEnsemble.NewRoot();
  const ReservedPort mMetadataPort;
  std::vector<std::unique_ptr<VyndNode>> mNodes;
  std::unique_ptr<BroadcastLoad> mLoad;
};

TEST_F(HarmTest, TheLeaderIsKilledThenTheEnsemblesLeaderThenASessionExpires) {
  VyndNode& killed = LeadingNode();
  killed.Process().Kill();
  killed.Start("256M");  // it waits for the old session's end, and serves its blocks again
  Progress();
  KillEnsembleLeader([this] { Progress(); });
  Progress();

  const std::string old = Leader();
  VyndNode& frozen = LeadingNode();
  const std::string registration = "/mf/node/" + old.substr(old.size() - 1);
  const std::int64_t session = RawZookeeper(mUrl).Owner(registration);
  frozen.Process().Signal(SIGSTOP);
  EXPECT_TRUE(WaitUntil([&] { return Leader() != old; }));
  frozen.Process().Signal(SIGCONT);
  // It notices, connects again, and announces itself anew.
  EXPECT_TRUE(WaitUntil([&] {
    RawZookeeper tree(mUrl);
    return tree.Exists(registration) && tree.Owner(registration) != session;
  }));
  Progress();
}

/// VYN_HARM_SECONDS (20) sets how long it goes on.
TEST_F(HarmTest, RandomKills) {
  const char* wish = std::getenv("VYN_HARM_SECONDS");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wish ? std::atoi(wish) : 20);
  std::mt19937 random(std::random_device{}());
  const auto rest = [&](unsigned int most) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % most));
  };
  int kills = 0;
  for (; std::chrono::steady_clock::now() < end; ++kills) {
    VyndNode& node = random() % 3 == 0 ? LeadingNode() : *mNodes[random() % mNodes.size()];
    const unsigned int harm = random() % 4;
    if (harm < 2) {
      node.Process().Kill();
      rest(1000);
      node.Start("256M");
    } else if (harm == 2) {
      node.Process().Signal(SIGSTOP);
      rest(3000);
      node.Process().Signal(SIGCONT);
    } else {
      KillEnsembleLeader([&] { rest(1000); });
    }
    rest(2000);
  }
  std::cout << kills << " times harm was done\n";
  EXPECT_GT(kills, 0);
  Progress();
}

}  // namespace
}  // namespace vyn::test
