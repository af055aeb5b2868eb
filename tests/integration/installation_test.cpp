// The installed tree, moved elsewhere, serves a program that knows nothing of the build.

#include "support/process/command.h"
#include "support/temp_dir.h"

namespace {

TEST(InstallationTest, TheInstalledTreeIsAHomeAndServesPkgConfigAndCMake) {
  const vyn::test::TempDir folder;
  folder.Write(
      "main.cpp",
      "#include <vyn/broadcast.h>\n"
      "int main() { VynBroadcastVersion(); return BroadcastGetLastErrorMessage() == nullptr ? 0 : 1; }\n");
  vyn::test::ExpectCommands(
      "cd " + folder.Path() + " && export CXX='" VYN_CXX_COMPILER "' CXXFLAGS='" VYN_SANITIZE_FLAGS "' && ",
      {{"cp -a " VYN_STAGE_DIR
        "/home . && cd home && ls conf/vyn.conf logs include/vyn/status.h tessel/24.0.0/"
        "*/lib/libvyn_broadcast.so tessel/24.0.0/*/lib/common/libulog.so"},
       // A configuration that somebody has edited stays.
       {"echo mine > home/conf/vyn.conf && cmake --install " VYN_EXAMPLE_DIR
        "/.. --prefix home | grep Keeping && cmp home/conf/vyn.conf.new " VYN_SOURCE_DIR
        "/conf/vyn.conf && cat home/conf/vyn.conf",
        0,
        {"mine\n"}},
       {"$CXX $CXXFLAGS -std=c++17 main.cpp -o main "
        "$(PKG_CONFIG_PATH=home/lib/pkgconfig pkg-config --cflags --libs vyn_broadcast)"},
       {"./main | tail -n 1 | grep -xE 'SoftWare Build Id: [0-9a-f]{40}'"},
       {"./main",
        0,
        {"Component Name: Orvane-vyn-bigdata-spark\nComponent version: 2.0.0\n"
         "Component AppendInfo: _aarch64\nSoftWare Name: vyn_broadcast\n"}},
       {"mv home 'moved home' && cmake -G Ninja -S 'moved home/share/vyn/examples/file_broadcast' -B build "
        "-DCMAKE_PREFIX_PATH=\"$PWD/moved home\" "
        "-DCMAKE_CXX_FLAGS=\"$CXXFLAGS -Wall -Wextra -Wshadow -pedantic -Werror\" "
        "&& cmake --build build"},
       {"build/publish_file || build/read_file || true", 0, {"usage: read_file"}}});
}

}  // namespace
