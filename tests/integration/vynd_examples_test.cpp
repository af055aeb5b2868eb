// The example programs with a real daemon and a real ZooKeeper.

#include "support/command.h"
#include "support/vynd_process.h"

#include <gtest/gtest.h>

#include <random>

namespace vyn::test {
namespace {

class ExamplesTest : public testing::Test {
 protected:
  ExamplesTest() {
    std::string contents(300001, 'x');
    for (std::size_t i = 0; i < contents.size(); ++i) {
      contents[i] = static_cast<char>(i * 7 + i / 251);
    }
    mFolder.Write("in", contents);
  }

  std::string Read(const VyndNode& node, const std::string& token, int& status) {
    const CommandResult run = RunCommand("timeout 300 " VYN_EXAMPLE_DIR "/read_file " + node.Home() +
                                         " app_1 " + token + " 7 4 " + mFolder / "out");
    status = run.status;
    return run.output;
  }
  /// One process publishes the file, two others read it.
  void ExpectBroadcast(VyndNode& node, const std::string& where) {
    ChildProcess publisher(
        {VYN_EXAMPLE_DIR "/publish_file", node.Home(), "app_1", "secret", "7", mFolder / "in", "100000"});
    std::string line;
    while (line.rfind("published", 0) != 0) {
      line = publisher.Receive(std::chrono::seconds(120));
    }
    EXPECT_EQ(line, "published 4 blocks on " + where);
    for (int i = 0; i < 2; ++i) {
      int status = -1;
      const std::string said = Read(node, "secret", status);
      ASSERT_EQ(status, 0) << said;
      EXPECT_NE(said.find("read 300001 bytes"), std::string::npos) << said;
      EXPECT_TRUE(ReadFile(mFolder / "out") == ReadFile(mFolder / "in"));
    }
    int status = 0;
    const std::string said = Read(node, "guessed", status);
    EXPECT_EQ(status, 1);
    EXPECT_NE(said.find("RegisterBroadcastApp failed with 1: "), std::string::npos) << said;
    EXPECT_EQ(node.Objects(), 4U);
    EXPECT_EQ(publisher.Wait(std::chrono::seconds(120)), 0);
    EXPECT_TRUE(WaitUntil([&] { return node.Objects() == 0; }));
    EXPECT_FALSE(RawZookeeper(mUrl).Exists("/vyn/apps/app_1")) << "it has ended its application";
  }

  TempDir mFolder;
  ZookeeperServer mZookeeper;
  const std::string mUrl = mZookeeper.NewRoot();
  const ReservedPort mMetadataPort;
};

TEST_F(ExamplesTest, AFilePublishedOnANodeIsRead) {
  VyndNode node(1, "127.0.0.1", mUrl, mMetadataPort.Number(), "127.0.0.1");
  node.Start();
  ExpectBroadcast(node, "this node");
}

TEST_F(ExamplesTest, AFilePublishedFromOutsideTheFabricIsRead) {
  // This machine has no interface with the node's address, so a driver takes itself to be outside.
  VyndNode node(2, "127.0.0.2", mUrl, mMetadataPort.Number(), "127.0.0.2");
  // A link port must be below 32768, where the system gives none away.
  std::random_device random;
  for (int attempt = 0; !node.Process().Running(); ++attempt) {
    std::ofstream(node.Home() + "/conf/vyn.conf", std::ios::app)
        << "vyn.tessel.rpc.manager.port=" << 20000 + random() % 12000 << "\n";
    try {
      node.Start();
    } catch (const std::runtime_error&) {  // somebody has that port
      node.Process().Kill();
      if (attempt == 20) {
        throw;
      }
    }
  }
  ExpectBroadcast(node, "another node");
}

TEST_F(ExamplesTest, AFileThatCannotBeReadLeavesNoApplicationBehind) {
  VyndNode node(1, "127.0.0.1", mUrl, mMetadataPort.Number(), "127.0.0.1");
  node.Start();
  const CommandResult run = RunCommand("timeout 300 " VYN_EXAMPLE_DIR "/publish_file " + node.Home() +
                                       " app_1 secret 7 " + mFolder / "none" + " 100000");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("none cannot be read"), std::string::npos) << run.output;
  EXPECT_FALSE(RawZookeeper(mUrl).Exists("/vyn/apps/app_1"));
}

}  // namespace
}  // namespace vyn::test
