// The check of the floors must see what it is there for.

#include "support/process/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

TEST(CheckFloorsTest, CheckFloorsReportsEachForbiddenInclude) {
  const vyn::test::TempDir dir;
  const std::string low = "src/common/util/b.h";
  const std::string lowText = "class Low {\n  void Call();\n  static int gCount;\n};\nint Free(int a);\n";
  dir.Write("scripts/check_floors.py", vyn::test::ReadFile(VYN_SOURCE_DIR "/scripts/check_floors.py"));
  dir.Write("platform/ulog/ulog.h", "#include \"vyn/status.h\"\n");
  dir.Write("include/vyn/status.h", "#include <cstdint>\n");
  dir.Write("src/common/util/a.h", "#include \"platform/ulog/ulog.h\"\n#include \"common/util/b.h\"\n");
  dir.Write("src/common/util/b.cpp", "#include \"common/util/b.h\"\n#include \"build_id.h\"\n");
  dir.Write("src/cluster/x.h", "");
  dir.Write("src/tessel/sdk/x.h", "");
  dir.Write(low, lowText);
  const auto run = [&] {
    return vyn::test::RunCommand("python3 '" + (dir / "scripts/check_floors.py") + "'");
  };
  EXPECT_EQ(run().output, "7 files, 0 complaints\n");
  const std::string lower = "#include \"common/util/b.h\"\n";
  const std::tuple<std::string, std::string, std::string> cases[] = {
      {"src/common/util/bad.cpp", "  #  include \"cluster/x.h\"\n", "src/cluster/x.h, which stands above it"},
      {"platform/bad/bad.h", lower, low + ", which stands above it"},
      {"include/vyn/bad.h", "#include \"platform/ulog/ulog.h\"\n", "ulog.h, which it must not know"},
      {"src/tessel/rpc/bad.h", "#include \"tessel/sdk/x.h\"\n", "sdk/x.h, which it must not know"},
      {low, "#include \"common/util/a.h\"\n",
       "circle: src/common/util/a.h -> " + low + " -> src/common/util/a.h"},
      {"src/tessel/rpc/bad.cpp", lower + "void Low::Call() {\n}\n", "defines Low::Call, which " + low},
      {"elsewhere/bad.h", "", "elsewhere/bad.h: stands on no floor"}};
  for (const auto& [file, text, complaint] : cases) {
    dir.Write(file, text);
    const auto result = run();
    EXPECT_EQ(result.status, 1) << file;
    EXPECT_NE(result.output.find(complaint), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(" 1 complaints\n"), std::string::npos) << result.output;
    dir.Write(file, file == low ? lowText : "");
  }
}

}  // namespace
