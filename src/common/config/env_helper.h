#pragma once

// The three environment values that locate an installation, checked once. An EnvHelper never changes after
// Initialize, so all const operations may be called from any thread. Complaints go to standard output: there
// is no log yet.

#include "common/util/ref.h"

#include <string>
#include <unordered_set>

namespace vyn::common {

class EnvHelper : public Referable {
 public:
  static constexpr const char* VYN_HOME_ENV = "VYN_HOME";
  static constexpr const char* VYN_HOME_VER = "VYN_VERSION";
  static constexpr const char* VYN_HOME_BIN_TYPE = "VYN_BINARY_TYPE";
  /// The accepted versions and binary types.
  static const std::unordered_set<std::string> vynVersionValues;
  static const std::unordered_set<std::string> vynBinaryTypeValues;

  EnvHelper() = default;
  ~EnvHelper() override = default;

  /// Returns: the process's instance, made at the first call. Empty for the rest of the process when the
  /// environment was wrong then.
  static Ref<EnvHelper> GetInstance();

  /// Reads and checks the environment. Returns: 0, or 1 with its complaint on standard output.
  unsigned int Initialize();

  /// Returns: `text` with ${VYN_HOME}, $VYN_HOME and the same of VYN_VERSION and VYN_BINARY_TYPE replaced.
  std::string ReplaceVyn(const std::string& text) const;

  /// Whether `logDir`, which is made (mode 0700) when it is missing, resolves to a path that begins with
  /// `home`. A directory made here and refused is removed again. Returns: 0 or 1.
  unsigned int CheckLogDir(const std::string& logDir, const std::string& home) const;

  /// The real path of the home directory.
  const std::string& GetHome() const { return mHome; }
  const std::string& GetVersion() const { return mVersion; }
  const std::string& GetBinaryType() const { return mBinaryType; }

 private:
  std::string mHome;
  std::string mVersion;
  std::string mBinaryType;
};

}  // namespace vyn::common
