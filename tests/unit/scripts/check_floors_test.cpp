// The check of the floors must see what it is there for.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

TEST(CheckFloorsTest, FindsWhatIsPlantedInASoundTree) {
  const vyn::test::TempDir dir;
  std::filesystem::create_directory(dir / "scripts");
  std::filesystem::copy_file(VYN_SOURCE_DIR "/scripts/check_floors.py", dir / "scripts/check_floors.py");
  const std::string low = "src/common/util/b.h";
  const std::string lowText = "class Low {\n  void Call();\n  static int gCount;\n};\nint Free(int a);\n";
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
  struct Case {
    std::string file;
    std::string include;
    std::string complaint;
    std::string text = {};
  };
  for (const auto& [file, include, complaint, text] :
       {Case{"src/common/util/bad.cpp", "cluster/x.h", "src/cluster/x.h, which stands above it"},
        Case{"platform/bad/bad.h", low.substr(4), low + ", which stands above it"},
        Case{"include/vyn/bad.h", "platform/ulog/ulog.h", "platform/ulog/ulog.h, which it must not know"},
        Case{"src/tessel/rpc/bad.h", "tessel/sdk/x.h", "src/tessel/sdk/x.h, which it must not know"},
        Case{low, "common/util/a.h", "circle: src/common/util/a.h -> " + low + " -> src/common/util/a.h"},
        Case{"src/common/util/bad.h", "b.h", "includes b.h, which is no path"},
        Case{"src/tessel/rpc/bad.cpp", low.substr(4), "defines Low::Call, which " + low,
             "void Low::Call() {\n}\n"},
        Case{"src/tessel/rpc/bad.cpp", low.substr(4), "defines Low::gCount, which " + low,
             "int Low::gCount = 1;\n"},
        Case{"src/tessel/rpc/bad.cpp", low.substr(4), "defines Free, which " + low,
             "int Free(int a) { return a; }\n"},
        Case{"elsewhere/bad.h", "vyn/status.h", "elsewhere/bad.h: stands on no floor"}}) {
    dir.Write(file, "  #  include \"" + include + "\"\n\n" + text);
    const auto result = run();
    EXPECT_EQ(result.status, 1) << file;
    EXPECT_NE(result.output.find(complaint), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(" 1 complaints\n"), std::string::npos) << result.output;
    dir.Write(file, file == low ? lowText : "");
  }
}

}  // namespace
