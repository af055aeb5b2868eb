// The installed tree, moved elsewhere, serves a program that knows nothing of the build.

#include "support/command.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace {

namespace fs = std::filesystem;

class InstallationTest : public testing::Test {
 protected:
  InstallationTest() {
    fs::copy(VYN_STAGE_DIR "/home", mHome, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
    mDir.Write(
        "main.cpp",
        "#include <vyn/broadcast.h>\n"
        "int main() { VynBroadcastVersion(); return BroadcastGetLastErrorMessage() == nullptr ? 0 : 1; }\n");
  }

  void ExpectOutput(const std::string& command, const std::string& text) {
    const auto result = vyn::test::RunCommand("cd '" + mDir.Path() + "' && " + command);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
  }

  vyn::test::TempDir mDir;
  const std::string mHome = mDir / "moved home";
};

TEST_F(InstallationTest, HoldsWhatAHomeNeedsAndServesPkgConfig) {
  const std::string library = mHome + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib";
  for (const std::string& path : {mHome + "/conf/vyn.conf", mHome + "/logs", library + "/libvyn_broadcast.so",
                                  library + "/common/libulog.so", mHome + "/include/vyn/status.h"}) {
    EXPECT_TRUE(fs::exists(path)) << path;
  }
  fs::rename(mHome, mDir / "home");  // pkg-config quotes no blanks
  ExpectOutput(
      VYN_CXX_COMPILER
      " " VYN_SANITIZE_FLAGS
      " -std=c++17 main.cpp $(PKG_CONFIG_PATH=home/lib/pkgconfig pkg-config --cflags --libs vyn_broadcast)"
      " -o main && ./main",
      "\nSoftWare Name: vyn_broadcast\n");
}

TEST_F(InstallationTest, ServesCMakeWithWhichItsExamplesAreBuilt) {
  ExpectOutput(
      "cmake -G Ninja -S '" + mHome +
          "/share/vyn/examples/file_broadcast' -B build"
          " -DCMAKE_PREFIX_PATH='" +
          mHome +
          "' -DCMAKE_CXX_COMPILER=" VYN_CXX_COMPILER " -DCMAKE_CXX_FLAGS='" VYN_SANITIZE_FLAGS
          " -Wall -Wextra -Wshadow -pedantic -Werror' && cmake --build build && build/publish_file || "
          "build/read_file || true",
      "usage: read_file");
}

}  // namespace
