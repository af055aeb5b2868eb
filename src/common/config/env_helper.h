#pragma once

// The three environment variables that locate an installation, read and checked once. An EnvHelper does not
// change after Initialize, so any thread may call the const operations. Errors are printed to standard
// output, because the logger does not run yet.

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

  /// Returns: the process's instance, which the first call makes. If the environment is wrong at the first
  /// call, every call returns null.
  static Ref<EnvHelper> GetInstance();

  /// Reads and checks the environment. Returns: 0, or 1 with a line on standard output.
  unsigned int Initialize();

  /// Returns: `text` with ${VYN_HOME} and $VYN_HOME replaced, and likewise VYN_VERSION and VYN_BINARY_TYPE.
  std::string ReplaceVyn(const std::string& text) const;

  /// Creates `logDir` with mode 0700 when it is missing, and checks that its real path begins with `home`.
  /// Removes a directory that it created but refuses. Returns: 0 or 1.
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
