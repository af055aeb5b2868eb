// Every public header is plain C++17 and needs nothing in front of it.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

/// What the compiler says of a source of this text.
std::string Complaints(const std::string& text) {
  const vyn::test::TempDir dir;
  return vyn::test::RunCommand(VYN_CXX_COMPILER
                               " -std=c++17 -Wall -Wextra -Wshadow -pedantic -Werror"
                               " -fsyntax-only -I" VYN_SOURCE_DIR "/include " +
                               dir.Write("source.cpp", text))
      .output;
}

TEST(PublicHeadersTest, EachCompilesAloneAndTwiceAsCxx17) {
  int compiled = 0;
  for (const auto& entry : std::filesystem::directory_iterator(VYN_SOURCE_DIR "/include/vyn")) {
    const std::string include = "#include <vyn/" + entry.path().filename().string() + ">\n";
    EXPECT_EQ(Complaints(include + include), "") << include;
    ++compiled;
  }
  EXPECT_GE(compiled, 2);
}

// What the header shows to a glue writer is code.
TEST(PublicHeadersTest, TheExamplesOfEachRoleCompile) {
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
  EXPECT_EQ(Complaints(source), "") << source;
}

}  // namespace
