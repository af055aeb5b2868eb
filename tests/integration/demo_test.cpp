// The demo itself: it tells that every executor read what the driver wrote, and leaves nothing behind.

#include "support/demo_test.h"

#include <unistd.h>

namespace vyn::test {
namespace {

/// On a file of about a megabyte, in small blocks.
class SmallDemoTest : public DemoTest {
 protected:
  SmallDemoTest() { mFile = mFolder.Write("file", std::string(1'000'001, 'v')) + " --block-size 64K"; }
};

TEST_F(SmallDemoTest, EveryExecutorReadsTheFile) { ExpectEqual("--executors 2", 2); }

TEST_F(SmallDemoTest, EveryExecutorReadsTheFileOverTls) { ExpectEqual("--executors 2 --tls", 2); }

TEST_F(SmallDemoTest, ADriverOutsideTheFabricReachesBothNodesOverTls) {
  if (geteuid() != 0) {
    GTEST_SKIP() << "network namespaces need root";
  }
  if (RunCommand("ip netns add vyn-probe-" + std::to_string(getpid())).status != 0) {
    GTEST_SKIP() << "network namespaces cannot be made here";
  }
  RunCommand("ip netns delete vyn-probe-" + std::to_string(getpid()));
  ExpectEqual("--outside --tls", 2);
}

TEST_F(SmallDemoTest, AnInterruptLeavesNothing) {
  const CommandResult run = RunCommand(
      "env --default-signal=INT " + Command("--executors 2") +
      " & pid=$!; echo $pid; for i in $(seq 600); do pgrep -f " + mFolder.Path() +
      "/[v]yn-demo-.*/home-1 >/dev/null && break; sleep 0.1; done; kill -INT $pid; wait $pid; echo code $?");
  EXPECT_NE(run.output.find("code 130"), std::string::npos) << run.output;
  ExpectNothingLeft(run.output.substr(0, run.output.find('\n')));
}

}  // namespace
}  // namespace vyn::test
