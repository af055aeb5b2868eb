// The example programs with a real daemon and a real ZooKeeper.

#include "support/command.h"
#include "support/pattern.h"
#include "support/test.h"
#include "support/vynd_process.h"

namespace vyn::test {
namespace {

class ExamplesTest : public testing::Test {
 protected:
  CommandResult Read(const VyndNode& node, const std::string& token) {
    return RunCommand("timeout 300 " VYN_EXAMPLE_DIR "/read_file " + node.Home() + " app_1 " + token +
                      " 7 4 " + mFolder / "out");
  }
  /// One process publishes the file, two others read it.
  void ExpectBroadcast(VyndNode& node, const std::string& where) {
    ChildProcess publisher(
        {VYN_EXAMPLE_DIR "/publish_file", node.Home(), "app_1", "secret", "7", mFile, "100000"});
    std::string line;
    while (line.rfind("published", 0) != 0) {
      line = publisher.Receive(std::chrono::seconds(120));
    }
    EXPECT_EQ(line, "published 4 blocks on " + where);
    for (int i = 0; i < 2; ++i) {
      const CommandResult run = Read(node, "secret");
      EXPECT_EQ(run.status, 0) << run.output;
      EXPECT_NE(run.output.find("read 300001 bytes"), std::string::npos) << run.output;
      EXPECT_TRUE(ReadFile(mFolder / "out") == ReadFile(mFile));
    }
    const CommandResult stranger = Read(node, "guessed");
    EXPECT_EQ(stranger.status, 1);
    EXPECT_NE(stranger.output.find("RegisterBroadcastApp failed with 1: "), std::string::npos)
        << stranger.output;
    EXPECT_EQ(node.Objects(), 4U);
    EXPECT_EQ(publisher.Wait(std::chrono::seconds(120)), 0);
    EXPECT_TRUE(WaitUntil([&] { return node.Objects() == 0; }));
    EXPECT_FALSE(RawZookeeper(mUrl).Exists("/vyn/apps/app_1")) << "it has ended its application";
  }

  const TempDir mFolder;
  const std::string mFile = mFolder.Write("in", Pattern(300001, 1));
  ZookeeperServer mZookeeper;
  const std::string mUrl = mZookeeper.NewRoot();
  const ReservedPort mMetadataPort;
};

TEST_F(ExamplesTest, AFilePublishedOnANodeIsRead) {
  VyndNode node(1, "127.0.0.1", mUrl, mMetadataPort.Number(), "127.0.0.1");
  node.Start();
  ExpectBroadcast(node, "this node");

  const CommandResult run = RunCommand("timeout 300 " VYN_EXAMPLE_DIR "/publish_file " + node.Home() +
                                       " app_1 secret 7 " + mFolder / "none" + " 100000");
  EXPECT_EQ(run.status, 1);
  EXPECT_NE(run.output.find("none cannot be read"), std::string::npos) << run.output;
  EXPECT_FALSE(RawZookeeper(mUrl).Exists("/vyn/apps/app_1"));
}

TEST_F(ExamplesTest, AFilePublishedFromOutsideTheFabricIsRead) {
  // This machine has no interface with the node's address, so a driver takes itself to be outside.
  VyndNode node(2, "127.0.0.2", mUrl, mMetadataPort.Number(), "127.0.0.2");
  node.Start();
  ExpectBroadcast(node, "another node");
}

}  // namespace
}  // namespace vyn::test
