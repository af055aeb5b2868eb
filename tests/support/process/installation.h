#pragma once

// A home of this process: VYN_HOME names a folder that is removed when the process ends. The environment is
// read once a process, so the home lasts as long.

#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {

class Installation : public TempDir {
 public:
  static const Installation& Get() {
    static const Installation home;
    return home;
  }
  /// Where the binding looks for libbmclient.so.
  static constexpr const char* kBmClient = "tessel/24.0.0/" VYN_BINARY_TYPE "/lib/mf/libbmclient.so";
  /// Puts the libbmclient.so of the build there.
  void LinkBmClient() const {
    const std::filesystem::path library = *this / kBmClient;
    std::filesystem::create_directories(library.parent_path());
    std::filesystem::remove(library);
    std::filesystem::create_symlink(VYN_STAGE_DIR "/lib/mf/libbmclient.so", library);
  }

 private:
  Installation() {
    setenv("VYN_HOME", Path().c_str(), 1);
    setenv("VYN_VERSION", "24.0.0", 1);
    setenv("VYN_BINARY_TYPE", VYN_BINARY_TYPE, 1);
  }
};

}  // namespace vyn::test
