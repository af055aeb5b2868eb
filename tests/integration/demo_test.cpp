// The demo itself: it tells that every executor read what the driver wrote, and leaves nothing behind. The
// file has VYN_DEMO_BYTES (1000001). With a gigabyte the pages are those that 4 and 16 processes share.

#include "support/process/command.h"
#include "support/temp_dir.h"

namespace vyn::test {
namespace {

class DemoTest : public testing::Test {
 protected:
  void SetUp() override {
    const std::uintmax_t size = mWish != nullptr ? std::strtoull(mWish, nullptr, 10) : 1000001;
    if (std::filesystem::space("/dev/shm").available < size + size / 2) {
      GTEST_SKIP() << "no room for " << size << " bytes";
    }
    // Random bytes in every block, and holes between them that cost the disk nothing.
    std::ifstream random("/dev/urandom", std::ios::binary);
    std::ofstream file(mFile, std::ios::binary);
    std::string bytes(256U << 10U, '\0');
    for (std::uintmax_t offset = 0; offset < size; offset += 4U << 20U) {
      random.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
      file.seekp(static_cast<std::streamoff>(offset)) << bytes;
    }
    file.close();
    std::filesystem::resize_file(mFile, size);
  }
  /// Runs the demo, with its temporary folder below the test's own, so that what it starts can be found by it.
  /// \param equal executors that read it all. \param meanwhile a shell command; $pid is the demo.
  void Run(const std::string& arguments, int code, std::ptrdiff_t equal, const std::string& meanwhile = "") {
    const CommandResult run =
        RunCommand("env --default-signal=INT TMPDIR=" + mFolder.Path() +
                   " python3 " VYN_SOURCE_DIR "/tools/demo/demo.py --stage " VYN_STAGE_DIR " " + mFile +
                   (mWish != nullptr ? " " : " --block-size 64K ") + arguments + " & pid=$!; echo $pid; " +
                   meanwhile + "wait $pid");
    EXPECT_EQ(run.status, code) << run.output;
    const std::regex word(" equal\n");
    const std::sregex_iterator found(run.output.begin(), run.output.end(), word);
    EXPECT_EQ(std::distance(found, {}), equal) << run.output;
    // Its pools and network namespaces carry its process id in their names.
    const std::string pid = run.output.substr(0, run.output.find('\n'));
    ExpectCommands("! ", {{"pgrep -f " + mFolder.Path() + "/[v]yn-demo-"},
                          {"ls -d /dev/shm/vyn-demo-" + pid + "-* /run/netns/vyn" + pid + "[sh]* " +
                           mFolder.Path() + "/vyn-demo-* 2>/dev/null | grep ."}});
  }

  const TempDir mFolder;
  const std::string mFile = mFolder / "file";
  const char* const mWish = std::getenv("VYN_DEMO_BYTES");
};

TEST_F(DemoTest, FewExecutorsReadTheFile) { Run("--executors 4", 0, 4); }

TEST_F(DemoTest, ManyExecutorsReadTheFileOverTls) {
  const int many = mWish != nullptr ? 16 : 5;
  Run("--tls --executors " + std::to_string(many), 0, many);
}

TEST_F(DemoTest, ADriverOutsideTheFabricReachesBothNodesOverTls) {
  const std::string name = "vyn-probe-" + std::to_string(getpid());
  if (RunCommand("ip netns add " + name + " && ip netns delete " + name).status != 0) {
    GTEST_SKIP() << "network namespaces cannot be made here";
  }
  Run("--outside --tls", 0, 2);
}

TEST_F(DemoTest, AnInterruptedDemoRemovesItsProcessesPoolsAndNamespaces) {
  Run("--executors 2", 130, 0,
      "for i in $(seq 600); do pgrep -f " + mFolder.Path() +
          "/[v]yn-demo-.*/home-1 >/dev/null && break; sleep 0.1; done; kill -INT $pid; ");
}

}  // namespace
}  // namespace vyn::test
