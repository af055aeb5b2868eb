// The installed tree, moved elsewhere, serves a program that knows nothing of the build.

#include "support/command.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <filesystem>

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

  void ExpectVersion(const std::string& command) {
    const auto result = vyn::test::RunCommand("cd '" + mDir.Path() + "' && " + command);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_NE(result.output.find("\nSoftWare Name: vyn_broadcast\n"), std::string::npos) << result.output;
  }

  vyn::test::TempDir mDir;
  const std::string mHome = mDir / "moved home";
};

TEST_F(InstallationTest, HoldsWhatAHomeNeeds) {
  const std::string library = mHome + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib";
  for (const std::string& path : {mHome + "/conf/vyn.conf", mHome + "/logs", library + "/libvyn_broadcast.so",
                                  library + "/common/libulog.so", mHome + "/include/vyn/status.h"}) {
    EXPECT_TRUE(fs::exists(path)) << path;
  }
}

TEST_F(InstallationTest, ServesPkgConfig) {
  fs::rename(mHome, mDir / "home");  // pkg-config quotes no blanks
  ExpectVersion(
      VYN_CXX_COMPILER
      " " VYN_SANITIZE_FLAGS
      " -std=c++17 main.cpp $(PKG_CONFIG_PATH=home/lib/pkgconfig pkg-config --cflags --libs vyn_broadcast)"
      " -o main && ./main");
}

TEST_F(InstallationTest, ServesCMake) {
  mDir.Write("CMakeLists.txt",
             "cmake_minimum_required(VERSION 3.25)\nproject(consumer CXX)\nfind_package(vyn 2.0 REQUIRED)\n"
             "add_executable(main main.cpp)\ntarget_link_libraries(main vyn::broadcast)\n");
  ExpectVersion("cmake -G Ninja -S . -B build -DCMAKE_PREFIX_PATH='" + mHome +
                "' -DCMAKE_CXX_COMPILER=" VYN_CXX_COMPILER " -DCMAKE_CXX_FLAGS='" VYN_SANITIZE_FLAGS
                "' && cmake --build build && build/main");
}

TEST_F(InstallationTest, ItsExamplesBuildFromWhatIsInstalled) {
  const auto result = vyn::test::RunCommand(
      "cmake -G Ninja -S '" + mHome + "/share/vyn/examples/file_broadcast' -B '" + mDir / "examples" +
      "' -DCMAKE_PREFIX_PATH='" + mHome +
      "' -DCMAKE_CXX_COMPILER=" VYN_CXX_COMPILER " -DCMAKE_CXX_FLAGS='" VYN_SANITIZE_FLAGS
      " -Wall -Wextra -Wshadow -pedantic -Werror' && cmake --build '" +
      mDir / "examples" + "'");
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_TRUE(fs::exists(mDir / "examples/read_file"));
}

}  // namespace
