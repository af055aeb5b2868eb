// What leaves the library.

#include "support/process/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

using Names = std::set<std::string>;

/// The names of the functions that a header declares at the beginning of a line.
Names DeclaredIn(const std::string& header) {
  const std::string text = vyn::test::ReadFile(VYN_SOURCE_DIR "/" + header);
  const std::regex declaration(R"(\n[a-zA-Z][\w:*<> ]* \*?(\w+)\()");
  return {std::sregex_token_iterator(text.begin(), text.end(), declaration, 1), {}};
}

/// The names outside namespace vyn that a library of the staged tree defines for others.
Names ExportedBy(const std::string& library) {
  std::istringstream names(vyn::test::RunCommand("nm -DC --defined-only " VYN_STAGE_DIR "/lib/" + library +
                                                 " | cut -d' ' -f3- | cut -d'(' -f1 | grep -v vyn::")
                               .output);
  return {std::istream_iterator<std::string>(names), {}};
}

TEST(ExportsTest, TheLibrariesExportWhatTheHeadersDeclare) {
  Names wanted = DeclaredIn("src/tessel/sdk/broadcast/base_api_broadcast.h");
  wanted.merge(DeclaredIn("include/vyn/broadcast.h"));
  wanted.merge(DeclaredIn("include/vyn/big_memory.h"));
  wanted.merge(DeclaredIn("include/vyn/variable.h"));
  EXPECT_EQ(ExportedBy("libvyn_broadcast.so"), wanted);
  EXPECT_EQ(ExportedBy("mf/libbmclient.so"), DeclaredIn("platform/fabric/client/bm_functions.h"));
}

}  // namespace
