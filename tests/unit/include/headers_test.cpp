// Every public header is plain C++17 and needs nothing in front of it.

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>

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

// What the header shows to a glue writer is code.
TEST(PublicHeadersTest, TheExamplesOfEachRoleCompile) {
  const vyn::test::TempDir dir;
  std::string source = "#include <vyn/broadcast.h>\n#include <cstring>\n";
  std::istringstream header(vyn::test::ReadFile(VYN_SOURCE_DIR "/include/vyn/broadcast.h"));
  int examples = 0;
  bool inside = false;
  for (std::string line; std::getline(header, line);) {
    if (std::regex_match(line, std::regex("//   An? (driver|executor).*:"))) {
      source += "void Example" + std::to_string(++examples) + "([[maybe_unused]] const char* data) {\n";
      inside = true;
    } else if (inside) {
      inside = line != "//";
      source += inside ? line.substr(2) + "\n" : "}\n";
    }
  }
  ASSERT_EQ(examples, 3);
  const auto result = vyn::test::RunCommand(
      VYN_CXX_COMPILER " -std=c++17 -Wall -Wextra -Wshadow -pedantic -Werror -fsyntax-only -I" VYN_SOURCE_DIR
                       "/include " +
      dir.Write("examples.cpp", source));
  EXPECT_EQ(result.status, 0) << source << result.output;
}

}  // namespace
