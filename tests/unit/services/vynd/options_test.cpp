#include "services/vynd/options.h"

#include <gtest/gtest.h>

#include <vector>

namespace vyn::services {
namespace {

TEST(OptionsTest, RefusesWhatTheClusterCannotHold) {
  struct Case {
    const char* option;
    std::string value;
    bool taken;
    const char* word;
  };
  const std::string longest(63, 'h');
  const Case cases[] = {
      {"--host-name", longest, true, ""},
      {"--host-name", "node-1.example_2.net", true, ""},
      {"--host-name", longest + "h", false, "--host-name"},
      {"--host-name", "", false, "--host-name"},
      {"--host-name", "\xff", false, "--host-name"},
      {"--host-name", "a b", false, "--host-name"},
      {"--link-port", "65535", true, ""},
      {"--link-port", "65536", false, "--link-port"},
      {"--link-port", "0", false, "--link-port"},
      {"--app-timeout", "0", false, "--app-timeout"},
      {"--pool-size", "lots", false, "--pool-size"},
  };
  for (const Case& c : cases) {
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
    EXPECT_EQ(taken, c.taken) << c.option << " '" << c.value << "' " << said;
    EXPECT_EQ(exitCode, c.taken ? 0 : 2) << c.option << " '" << c.value << "'";
    EXPECT_NE(said.find(c.word), std::string::npos) << said;
  }
}

}  // namespace
}  // namespace vyn::services
