#pragma once

// An installation whose libbmclient.so is the scripted one, as this process's VYN_HOME. One ScriptedBmClient
// at a time; its end closes the library. The folder is removed when the process ends.

#include "support/bm_script.h"
#include "support/test.h"

namespace vyn::test {

class ScriptedBmClient {
 public:
  /// \param install whether the library is there from the beginning.
  explicit ScriptedBmClient(bool install = true);
  ~ScriptedBmClient();
  ScriptedBmClient(const ScriptedBmClient&) = delete;
  ScriptedBmClient& operator=(const ScriptedBmClient&) = delete;

  /// Where the binding looks for the library.
  static std::string Path();
  /// Puts a fresh copy of the library there, driven by `script`.
  void Install();
  /// The same without the symbol `lacking`, and without a script.
  void InstallLacking(const std::string& lacking);
  void InstallBytes(const std::string& bytes);
  void Remove();

  BmScript script;

 private:
  void LetGo();
  void* mHandle =
      nullptr;  // keeps the library, and with it the pointer to the script, across a close by the binding
};

}  // namespace vyn::test
