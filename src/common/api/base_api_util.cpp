#include "common/api/base_api_util.h"

#include "common/config/env_helper.h"
#include "common/log/logging.h"
#include "common/util/file_util.h"
#include "platform/openssl_dl/openssl_dl.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

namespace vyn::common {

unsigned int BaseApiUtil::SetVynEnv(const char* home, const char* version, const char* binaryType) {
  const std::pair<const char*, const char*> variables[] = {{EnvHelper::VYN_HOME_ENV, home},
                                                           {EnvHelper::VYN_HOME_VER, version},
                                                           {EnvHelper::VYN_HOME_BIN_TYPE, binaryType}};
  for (const auto& [name, value] : variables) {
    const int result = value == nullptr ? -1 : setenv(name, value, 1);
    if (result != 0) {
      std::cout << "Failed to set " << name << " with ret: " << result << std::endl;
      return VYN_ERR_GENERIC;
    }
  }
  return VYN_OK;
}

unsigned int BaseApiUtil::ConfigInit(const std::string& home, Ref<Configuration>& conf) {
  const std::string path = home + "/conf/vyn.conf";
  if (!FileUtil::IsPathExist(path)) {
    return VYN_FAIL(VYN_ERR_CONF_FILE_MISSING, "Configuration file doesn't exist");
  }
  conf = Configuration::GetInstance(path);
  return conf == nullptr ? VYN_ERR_GENERIC : VYN_OK;
}

unsigned int BaseApiUtil::SetOpensslDLPath(const Ref<Configuration>& conf) {
  if (conf == nullptr) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Param config is nullptr.");
  }
  const std::string sslPath = conf->GetString("vyn.tessel.rpc.openssl.path", "");
  const std::string cryptoPath = conf->GetString("vyn.tessel.rpc.crypto.path", "");
  if (!FileUtil::IsPathValid(sslPath) || !FileUtil::IsPathValid(cryptoPath)) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to Get OpenSsl Lib path.");
  }
  const int answer = SetOpensslDLopenLibPath(sslPath.c_str(), cryptoPath.c_str());
  if (answer != OPENSSL_DL_OK) {
    VYN_LOG_ERROR(OpensslDLGetLastMessage());
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to set openssl path. return:" << answer);
  }
  return VYN_OK;
}

unsigned int BaseApiUtil::GetModuleFileName(long* address, char*& directory) {
  char* working = getcwd(nullptr, 0);
  if (working == nullptr) {
    std::cout << "getcwd error" << std::endl;
    return VYN_ERR_GENERIC;
  }
  free(working);
  Dl_info info{};
  if (dladdr(address, &info) == 0) {
    return VYN_ERR_GENERIC;
  }
  char* path = strdup(info.dli_fname);
  VYN_CHECK_POINTER(path);
  if (char* slash = std::strrchr(path, '/')) {
    *slash = '\0';
  }
  directory = path;
  return VYN_OK;
}

std::string BaseApiUtil::GetDynamicPath(const std::string& name) {
  char* directory = nullptr;
  if (Failed(GetModuleFileName(reinterpret_cast<long*>(&BaseApiUtil::EmptyFunc), directory))) {
    std::cout << "Failed to get module name." << std::endl;
    return "";
  }
  const std::string text = directory;
  free(directory);
  const auto position = name.empty() ? std::string::npos : text.find(name);
  if (position == std::string::npos) {
    std::cout << "Failed to get new VYN_HOME for app context." << std::endl;
    return "";
  }
  std::string home = text.substr(0, position);
  setenv(EnvHelper::VYN_HOME_ENV, home.c_str(), 1);
  return home;
}

void BaseApiUtil::EmptyFunc() {}

}  // namespace vyn::common
