#include "common/config/env_helper.h"

#include "common/util/file_util.h"
#include "common/util/text.h"
#include "vyn/status.h"

#include <cstdlib>
#include <iostream>
#include <new>

namespace vyn::common {

namespace {

constexpr unsigned int kLogDirMode = 0700;

unsigned int Refuse(const char* line) {
  std::cout << line << std::endl;
  return VYN_ERR_GENERIC;
}

/// Returns: the variable's value; empty when it is not set.
std::string ReadVariable(const char* name) {
  const char* value = std::getenv(name);
  return value == nullptr ? "" : value;
}

/// Replaces "${NAME}", then "$NAME". An empty value replaces nothing.
void ReplaceVariable(std::string& text, const char* name, const std::string& value) {
  if (!value.empty()) {
    text = ReplaceStr(text, std::string("${") + name + "}", value);
    text = ReplaceStr(text, std::string("$") + name, value);
  }
}

}  // namespace

const std::unordered_set<std::string> EnvHelper::vynVersionValues{"21.0.0", "22.0.0", "23.0.0", "24.0.0"};
const std::unordered_set<std::string> EnvHelper::vynBinaryTypeValues{"linux-aarch64", "linux-x86_64"};

Ref<EnvHelper> EnvHelper::GetInstance() {
  static const Ref<EnvHelper>& gInstance = *new Ref<EnvHelper>([] {  // never destroyed
    Ref<EnvHelper> made(new (std::nothrow) EnvHelper);
    if (made != nullptr && Failed(made->Initialize())) {
      made = nullptr;
    }
    return made;
  }());
  return gInstance;
}

unsigned int EnvHelper::Initialize() {
  const std::string home = ReadVariable(VYN_HOME_ENV);
  if (home.empty()) {
    return Refuse(R"(Environment variable "VYN_HOME" is not set. Exit.)");
  }
  if (Failed(FileUtil::RealPathNoLog(home, mHome))) {
    return Refuse(R"(Environment variable "VYN_HOME" is invalid. Exit.)");
  }
  mVersion = ReadVariable(VYN_HOME_VER);
  if (mVersion.empty()) {
    return Refuse(R"(Environment variable "VYN_VERSION" not set. Exit.)");
  }
  if (vynVersionValues.count(mVersion) == 0) {
    return Refuse(R"(Environment variable "VYN_VERSION" is invalid. Exit.)");
  }
  mBinaryType = ReadVariable(VYN_HOME_BIN_TYPE);
  if (mBinaryType.empty()) {
    return Refuse(R"(Environment variable "VYN_BINARY_TYPE" not set. Exit.)");
  }
  if (vynBinaryTypeValues.count(mBinaryType) == 0) {
    return Refuse(R"(Environment variable "VYN_BINARY_TYPE" is invalid. Exit.)");
  }
  return VYN_OK;
}

std::string EnvHelper::ReplaceVyn(const std::string& text) const {
  std::string result = text;
  ReplaceVariable(result, VYN_HOME_ENV, mHome);
  ReplaceVariable(result, VYN_HOME_VER, mVersion);
  ReplaceVariable(result, VYN_HOME_BIN_TYPE, mBinaryType);
  return result;
}

unsigned int EnvHelper::CheckLogDir(const std::string& logDir, const std::string& home) const {
  if (!FileUtil::IsPathValid(logDir)) {
    return Refuse("vyn.log.dir is invalid. Exit.");
  }
  const bool existed = FileUtil::IsPathExist(logDir);
  if (!existed && Failed(FileUtil::CreatePath(logDir, kLogDirMode))) {
    return Refuse("Failed to create dir ");
  }
  std::string resolved;
  if (Failed(FileUtil::RealPathNoLog(logDir, resolved))) {
    Refuse("vyn.log.dir is invalid. Exit.");
  } else if (resolved.compare(0, home.size(), home) == 0) {
    return VYN_OK;
  } else {
    Refuse("Cannot create LogDir out of VYN_HOME");
  }
  if (!existed && Failed(FileUtil::DeletePath(logDir))) {
    Refuse("vyn.log.dir delete failed. Exit.");
  }
  return VYN_ERR_GENERIC;
}

}  // namespace vyn::common
