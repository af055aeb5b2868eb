#pragma once

// The base of tests that run the demo: it tells that every executor read what the driver wrote, and leaves
// nothing behind.

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace vyn::test {

class DemoTest : public testing::Test {
 protected:
  /// The demo's temporary folder is below the test's own, so that what it started can be found by it.
  std::string Command(const std::string& arguments) {
    return "TMPDIR=" + mFolder.Path() +
           " python3 " VYN_SOURCE_DIR "/tools/demo/demo.py --stage " VYN_STAGE_DIR " " + mFile + " " +
           arguments;
  }
  std::size_t Count(const std::string& text, const std::string& part) {
    std::size_t count = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; at += part.size()) {
      ++count;
    }
    return count;
  }
  /// \param pid of the demo: its pools and namespaces carry it in their names.
  void ExpectNothingLeft(const std::string& pid) {
    EXPECT_EQ(RunCommand("pgrep -f " + mFolder.Path() + "/[v]yn-demo-").output, "");
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/vyn-demo-" + pid + "-1"));
    EXPECT_FALSE(std::filesystem::exists("/dev/shm/vyn-demo-" + pid + "-2"));
    const std::string mark = "/run/netns/vyn" + pid;
    EXPECT_FALSE(std::filesystem::exists(mark + "s"));
    EXPECT_FALSE(std::filesystem::exists(mark + "h0"));
    for (const auto& entry : std::filesystem::directory_iterator(mFolder.Path())) {
      EXPECT_NE(entry.path().filename().string().rfind("vyn-demo-", 0), 0U) << entry.path();
    }
  }
  /// Runs the demo in a shell that tells its number first.
  void ExpectEqual(const std::string& arguments, std::size_t executors) {
    const CommandResult run = RunCommand("echo $$; exec env " + Command(arguments));
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_EQ(Count(run.output, " equal\n"), executors) << run.output;
    EXPECT_EQ(Count(run.output, "DIFFERENT"), 0U) << run.output;
    ExpectNothingLeft(run.output.substr(0, run.output.find('\n')));
  }

  TempDir mFolder;
  std::string mFile;  ///< what it broadcasts
};

}  // namespace vyn::test
