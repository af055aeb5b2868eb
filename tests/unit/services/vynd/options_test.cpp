#include "services/vynd/options.h"

#include "services/vynd/home_lock.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::services {
namespace {

TEST(OptionsTest, RefusesWhatTheClusterCannotHold) {
  struct Case {
    const char* option;
    std::string value;
    bool taken;
  };
  const std::string longest(63, 'h');
  for (const Case& c : {Case{"--host-name", longest, true}, Case{"--host-name", "node-1.example_2.net", true},
                        Case{"--host-name", longest + "h", false}, Case{"--host-name", "", false},
                        Case{"--host-name", "\xff", false}, Case{"--host-name", "a b", false},
                        Case{"--link-port", "65535", true}, Case{"--link-port", "65536", false},
                        Case{"--link-port", "0", false}, Case{"--app-timeout", "0", false},
                        Case{"--pool-size", "lots", false}}) {
    std::vector<std::string> words{"vynd",      "--home",    "/",      "--node-id", "7",
                                   "--address", "192.0.2.1", c.option, c.value};
    std::vector<char*> arguments;
    for (std::string& word : words) {
      arguments.push_back(word.data());
    }
    Options options;
    int exitCode = 0;
    testing::internal::CaptureStderr();
    const bool taken = ReadOptions(static_cast<int>(arguments.size()), arguments.data(), options, exitCode);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_TRUE(taken == c.taken && exitCode == (c.taken ? 0 : 2))
        << c.option << " '" << c.value << "' " << said;
    EXPECT_TRUE(c.taken || said.find(c.option) != std::string::npos) << said;
  }
}

TEST(HomeLock, HasOneHolder) {
  const test::TempDir home;
  std::string error;
  {
    HomeLock first;
    ASSERT_TRUE(first.Take(home.Path(), error)) << error;
    HomeLock second;
    EXPECT_FALSE(second.Take(home.Path(), error));
    EXPECT_NE(error.find(std::to_string(getpid())), std::string::npos) << error;
  }
  HomeLock next;
  EXPECT_TRUE(next.Take(home.Path(), error)) << error;
  HomeLock nowhere;
  EXPECT_FALSE(nowhere.Take(home / "missing", error));
}

}  // namespace
}  // namespace vyn::services
