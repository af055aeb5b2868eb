#include "support/scripted_bmclient.h"

#include "support/installation.h"
#include "support/test.h"
#include "vyn/big_memory.h"

namespace vyn::test {

ScriptedBmClient::ScriptedBmClient(bool install) {
  Remove();
  if (install) {
    Install();
  }
}

ScriptedBmClient::~ScriptedBmClient() {
  BmUninitialize();
  LetGo();
  Remove();
}

std::string ScriptedBmClient::Path() { return Installation::Get() / Installation::kBmClient; }

void ScriptedBmClient::Remove() { std::filesystem::remove(Path()); }

void ScriptedBmClient::InstallBytes(const std::string& bytes) {
  LetGo();   // the loader knows a library that is open by its path
  Remove();  // a new file, never the one that may be mapped
  Installation::Get().Write(Installation::kBmClient, bytes);
}

void ScriptedBmClient::Install() {
  InstallBytes(ReadFile(VYN_TEST_PROGRAM_DIR "/libscripted_bmclient.so"));
  mHandle = dlopen(Path().c_str(), RTLD_NOW);
  if (mHandle == nullptr) {
    throw std::runtime_error(dlerror());
  }
  reinterpret_cast<void (*)(BmScript*)>(dlsym(mHandle, "ScriptedBmUse"))(&script);
}

void ScriptedBmClient::InstallLacking(const std::string& lacking) {
  // Its name in the symbol table becomes another one of the same length.
  std::string bytes = ReadFile(VYN_TEST_PROGRAM_DIR "/libscripted_bmclient.so");
  const std::string whole = std::string(1, '\0') + lacking + std::string(1, '\0');
  for (auto at = bytes.find(whole); at != std::string::npos; at = bytes.find(whole, at + 1)) {
    bytes[at + 1] = 'x';
  }
  InstallBytes(bytes);
}

void ScriptedBmClient::LetGo() {
  if (mHandle != nullptr) {
    dlclose(mHandle);
    mHandle = nullptr;
  }
}

}  // namespace vyn::test
