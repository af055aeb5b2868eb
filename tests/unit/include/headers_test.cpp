// Every public header is plain C++17 and needs nothing in front of it; variable.h is C99, too.

#include "support/process/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

TEST(PublicHeadersTest, EachPublicHeaderCompilesAloneAndTwice) {
  const vyn::test::TempDir dir;
  const std::string compiler = VYN_CXX_COMPILER
      " -Wall -Wextra -Wshadow -pedantic -Werror -fsyntax-only -I" VYN_SOURCE_DIR "/include ";
  for (const auto& entry : std::filesystem::directory_iterator(VYN_SOURCE_DIR "/include/vyn")) {
    const std::string include = "#include <vyn/" + entry.path().filename().string() + ">\n";
    const std::string source = dir.Write("source.cpp", include + include);
    EXPECT_EQ(vyn::test::RunCommand(compiler + "-std=c++17 " + source).output, "") << include;
  }
  const std::string source = dir.Write("source.c", "#include <vyn/variable.h>\n");
  EXPECT_EQ(vyn::test::RunCommand(compiler + "-x c -std=c99 " + source).output, "");
}

}  // namespace
