#pragma once

// An installation whose libbmclient.so is the scripted one, as this process's VYN_HOME. One ScriptedBmClient
// at a time; its end closes the library. The folder is removed when the process ends.

#include "support/client/bm_script.h"
#include "support/process/installation.h"
#include "vyn/big_memory.h"

namespace vyn::test {

class ScriptedBmClient {
 public:
  ScriptedBmClient() { Install(); }
  ~ScriptedBmClient() {
    BmUninitialize();
    Remove();
  }

  /// Where the binding looks for the library.
  static std::string Path() { return Installation::Get() / Installation::kBmClient; }
  static std::string Bytes() { return ReadFile(VYN_TEST_PROGRAM_DIR "/libscripted_bmclient.so"); }
  /// Puts a fresh copy of the library there, driven by `script`.
  void Install() {
    Install(Bytes());
    mHandle = dlopen(Path().c_str(), RTLD_NOW);
    reinterpret_cast<void (*)(BmScript*)>(dlsym(mHandle, "ScriptedBmUse"))(&script);
  }
  /// Puts a file with these bytes there, which no script drives.
  void Install(const std::string& bytes) {
    Remove();  // a new file, never the one that may be mapped
    Installation::Get().Write(Installation::kBmClient, bytes);
  }
  void Remove() {
    if (mHandle != nullptr) {  // the loader knows a library that is open by its path
      dlclose(std::exchange(mHandle, nullptr));
    }
    std::filesystem::remove(Path());
  }

  BmScript script;

 private:
  /// Keeps the library, and with it the pointer to the script, across a close by the binding.
  void* mHandle = nullptr;
};

}  // namespace vyn::test
