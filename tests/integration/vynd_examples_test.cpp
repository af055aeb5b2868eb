// The example programs with a real daemon and a real ZooKeeper.

#include "support/pattern.h"
#include "support/process/command.h"
#include "support/process/vynd_process.h"

namespace vyn::test {
namespace {

/// One process publishes a file on or through the node, two others read it.
void ExpectBroadcast(int nodeId, const std::string& where) {
  const TempDir folder;
  const std::string file = folder.Write("in", Pattern(300001, 1));
  ZookeeperServer zookeeper;
  const std::string url = zookeeper.NewRoot();
  RawZookeeper tree(url);
  const ReservedPort metadataPort;
  const std::string address = "127.0.0." + std::to_string(nodeId);
  VyndNode node(nodeId, address, url, metadataPort.Number(), address);
  node.Start();
  const std::string missing = folder / "none";
  ExpectCommands("timeout 300 " VYN_EXAMPLE_DIR "/publish_file " + node.Home() + " app_1 secret 7 ",
                 {{missing, 1, {missing + " cannot be read"}}});
  EXPECT_FALSE(tree.Exists("/vyn/apps/app_1"));

  ChildProcess publisher({VYN_EXAMPLE_DIR "/publish_file", node.Home(), "app_1", "secret", "7", file});
  std::string line;
  while (line.rfind("published", 0) != 0) {
    line = publisher.Receive(std::chrono::seconds(120));
  }
  EXPECT_EQ(line, "published " + file + " on " + where);
  const std::string out = " 7 " + folder / "out";
  const CommandRow reads = {
      "secret" + out + " && cmp " + file + " " + folder / "out", 0, {"read 300001 bytes"}};
  ExpectCommands("timeout 300 " VYN_EXAMPLE_DIR "/read_file " + node.Home() + " app_1 ",
                 {reads, reads, {"guessed" + out, 1, {"RegisterBroadcastApp failed with 1: "}}});
  EXPECT_EQ(node.Objects(), 1U);
  EXPECT_EQ(publisher.Wait(std::chrono::seconds(120)), 0);
  EXPECT_TRUE(WaitUntil([&] { return node.Objects() == 0; }));
  EXPECT_FALSE(tree.Exists("/vyn/apps/app_1")) << "it has ended its application";
}

TEST(ExamplesTest, TheExamplesReadAFilePublishedOnTheirNode) { ExpectBroadcast(1, "this node"); }

// This machine has no interface with the node's address, so a driver takes itself to be outside.
TEST(ExamplesTest, TheExamplesReadAFilePublishedFromOutsideTheFabric) { ExpectBroadcast(2, "another node"); }

}  // namespace
}  // namespace vyn::test
