// The check of the floors must see what it is there for.

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>

namespace {

class CheckFloorsTest : public testing::Test {
 protected:
  CheckFloorsTest() {
    std::filesystem::create_directory(mDir / "scripts");
    std::filesystem::copy_file(VYN_SOURCE_DIR "/scripts/check_floors.py", mDir / "scripts/check_floors.py");
    mDir.Write("platform/ulog/ulog.h", "#include \"vyn/status.h\"\n");
    mDir.Write("include/vyn/status.h", "#include <cstdint>\n");
    mDir.Write("src/common/util/a.h", "#include \"platform/ulog/ulog.h\"\n#include \"common/util/b.h\"\n");
    mDir.Write("src/common/util/b.h",
               "class Low {\n  void Call();\n  static int gCount;\n};\nint Free(int a);\n");
    mDir.Write("src/common/util/b.cpp", "#include \"common/util/b.h\"\n#include \"build_id.h\"\n");
  }

  vyn::test::CommandResult Run() {
    return vyn::test::RunCommand("python3 '" + (mDir / "scripts/check_floors.py") + "'");
  }

  vyn::test::TempDir mDir;
};

TEST_F(CheckFloorsTest, AcceptsASoundTree) {
  const auto result = Run();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_EQ(result.output, "5 files, 0 complaints\n");
}

TEST_F(CheckFloorsTest, FindsWhatIsPlanted) {
  struct Case {
    const char* file;
    const char* text;
    const char* complaint;
  };
  for (const Case& item : {
           Case{"src/common/util/bad.cpp", "#include \"cluster/x.h\"\n",
                "src/common/util/bad.cpp: includes src/cluster/x.h, which stands above it"},
           Case{"platform/bad/bad.h", "  #  include \"common/util/b.h\"\n",
                "platform/bad/bad.h: includes src/common/util/b.h, which stands above it"},
           Case{"include/vyn/bad.h", "#include \"platform/ulog/ulog.h\"\n",
                "include/vyn/bad.h: includes platform/ulog/ulog.h, which it must not know"},
           Case{"src/tessel/rpc/bad.h", "#include \"tessel/sdk/x.h\"\n",
                "src/tessel/rpc/bad.h: includes src/tessel/sdk/x.h, which it must not know"},
           Case{"src/common/util/b.h", "#include \"common/util/a.h\"\n",
                "circle: src/common/util/a.h -> src/common/util/b.h -> src/common/util/a.h"},
           Case{"src/common/util/bad.h", "#include \"b.h\"\n",
                "src/common/util/bad.h: includes b.h, which is no path from a root of includes"},
           Case{"src/tessel/rpc/bad.cpp", "#include \"common/util/b.h\"\n\nvoid Low::Call() {\n}\n",
                "src/tessel/rpc/bad.cpp: defines Low::Call, which src/common/util/b.h declares on another "
                "floor"},
           Case{"src/tessel/rpc/bad.cpp", "#include \"common/util/b.h\"\n\nint Low::gCount = 1;\n",
                "src/tessel/rpc/bad.cpp: defines Low::gCount, which src/common/util/b.h declares on another "
                "floor"},
           Case{"src/tessel/rpc/bad.cpp", "#include \"common/util/b.h\"\n\nint Free(int a) { return a; }\n",
                "src/tessel/rpc/bad.cpp: defines Free, which src/common/util/b.h declares on another floor"},
           Case{"elsewhere/bad.h", "", "elsewhere/bad.h: stands on no floor"},
       }) {
    mDir.Write("src/cluster/x.h", "");
    mDir.Write("src/tessel/sdk/x.h", "");
    const std::string old = vyn::test::ReadFile(mDir / item.file);
    const bool existed = std::filesystem::exists(mDir / item.file);
    mDir.Write(item.file, item.text);
    const auto result = Run();
    EXPECT_EQ(result.status, 1) << item.file;
    EXPECT_NE(result.output.find(std::string(item.complaint) + "\n"), std::string::npos) << result.output;
    EXPECT_NE(result.output.find(" 1 complaints\n"), std::string::npos) << result.output;
    existed ? static_cast<void>(mDir.Write(item.file, old))
            : static_cast<void>(std::filesystem::remove(mDir / item.file));
  }
}

}  // namespace
