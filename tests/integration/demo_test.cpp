// The demo itself: it tells that every executor read what the driver wrote, and leaves nothing behind. The
// file has VYN_DEMO_BYTES (1000001). With a gigabyte the pages are those that 4 and 16 processes share.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {
namespace {

class DemoTest : public testing::Test {
 protected:
  void SetUp() override {
    const char* wish = std::getenv("VYN_DEMO_BYTES");
    const std::uintmax_t size = wish != nullptr ? std::strtoull(wish, nullptr, 10) : 1000001;
    if (std::filesystem::space("/dev/shm").available < size + size / 2) {
      GTEST_SKIP() << "no room for " << size << " bytes";
    }
    // Random bytes in every block, and holes between them that cost the disk nothing.
    std::ofstream file(mFolder / "file", std::ios::binary);
    std::mt19937 random(static_cast<unsigned int>(getpid()));
    for (std::uintmax_t offset = 0; offset < size; offset += 4U << 20U) {
      std::string bytes(std::min<std::uintmax_t>(256U << 10U, size - offset), '\0');
      for (char& byte : bytes) {
        byte = static_cast<char>(random());
      }
      file.seekp(static_cast<std::streamoff>(offset));
      file << bytes;
    }
    file.close();
    std::filesystem::resize_file(mFolder / "file", size);
    mFile = mFolder / "file" + (wish != nullptr ? "" : " --block-size 64K");
  }
  /// The demo's temporary folder is below the test's own, so that what it started can be found by it.
  std::string Command(const std::string& arguments) {
    return "env --default-signal=INT TMPDIR=" + mFolder.Path() +
           " python3 " VYN_SOURCE_DIR "/tools/demo/demo.py --stage " VYN_STAGE_DIR " " + mFile + " " +
           arguments;
  }
  /// \param output begins with the demo's process id, which its pools and namespaces carry in their names.
  void ExpectNothingLeft(const std::string& output) {
    EXPECT_EQ(RunCommand("pgrep -f " + mFolder.Path() + "/[v]yn-demo-").output, "");
    const std::string pid = output.substr(0, output.find('\n'));
    const std::string traces =
        "/dev/shm/vyn-demo-" + pid + "-* /run/netns/vyn" + pid + "[sh]* " + mFolder.Path() + "/vyn-demo-*";
    EXPECT_EQ(RunCommand("ls -d " + traces + " 2>/dev/null").output, "");
  }
  /// Runs the demo in a shell that tells its number first.
  void ExpectEqual(const std::string& arguments, std::size_t executors) {
    const CommandResult run = RunCommand("echo $$; exec " + Command(arguments));
    EXPECT_EQ(run.status, 0) << run.output;
    std::size_t equal = 0;
    for (std::size_t at = 0; (at = run.output.find(" equal\n", at)) != std::string::npos; ++at) {
      ++equal;
    }
    EXPECT_EQ(equal, executors) << run.output;
    EXPECT_EQ(run.output.find("DIFFERENT"), std::string::npos) << run.output;
    ExpectNothingLeft(run.output);
  }

  TempDir mFolder;
  std::string mFile;  ///< what it broadcasts
};

TEST_F(DemoTest, FewExecutorsReadTheFile) { ExpectEqual("--executors 4", 4); }

TEST_F(DemoTest, ManyExecutorsReadTheFileOverTls) {
  const std::size_t many = std::getenv("VYN_DEMO_BYTES") != nullptr ? 16 : 5;
  ExpectEqual("--tls --executors " + std::to_string(many), many);
}

TEST_F(DemoTest, ADriverOutsideTheFabricReachesBothNodesOverTls) {
  const std::string name = "vyn-probe-" + std::to_string(getpid());
  if (RunCommand("ip netns add " + name + " && ip netns delete " + name).status != 0) {
    GTEST_SKIP() << "network namespaces cannot be made here";
  }
  ExpectEqual("--outside --tls", 2);
}

TEST_F(DemoTest, AnInterruptLeavesNothing) {
  const std::string output =
      RunCommand(Command("--executors 2") + " & pid=$!; echo $pid; for i in $(seq 600); do pgrep -f " +
                 mFolder.Path() +
                 "/[v]yn-demo-.*/home-1 >/dev/null && break; sleep 0.1; done; kill -INT $pid; wait $pid; "
                 "echo code $?")
          .output;
  EXPECT_NE(output.find("code 130"), std::string::npos) << output;
  ExpectNothingLeft(output);
}

}  // namespace
}  // namespace vyn::test
