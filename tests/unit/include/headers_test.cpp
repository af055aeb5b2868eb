// Every public header is plain C++17 and needs nothing in front of it.

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

TEST(PublicHeadersTest, EachCompilesAloneAsCxx17) {
  const std::filesystem::path folder = VYN_SOURCE_DIR "/include/vyn";
  const vyn::test::TempDir dir;
  int compiled = 0;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    const std::string name = entry.path().filename();
    // Twice, so that a missing include guard is seen.
    const std::string source =
        dir.Write(name + ".cpp", "#include <vyn/" + name + ">\n#include <vyn/" + name + ">\n");
    const auto result = vyn::test::RunCommand(
        VYN_CXX_COMPILER
        " -std=c++17 -Wall -Wextra -Wshadow -pedantic -Werror -fsyntax-only -I" VYN_SOURCE_DIR "/include " +
        source);
    EXPECT_EQ(result.status, 0) << name << "\n" << result.output;
    ++compiled;
  }
  EXPECT_GE(compiled, 2);
}

}  // namespace
