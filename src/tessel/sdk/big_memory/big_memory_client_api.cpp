#include "tessel/sdk/big_memory/big_memory_client_api.h"

#include "common/config/env_helper.h"
#include "common/util/file_util.h"
#include "vyn/status.h"

#include <dlfcn.h>

#include <cstdio>
#include <utility>

namespace vyn::common {

namespace {

std::string LoaderError() {
  const char* error = dlerror();
  return error == nullptr ? "" : error;
}

template <typename Function>
bool Load(const char* name, Function& function, std::string& error) {
  function = reinterpret_cast<Function>(BigMemoryClientApi::LoadFunction(name, error));
  return function != nullptr;
}

template <typename Function>
void LoadOptional(const char* name, Function& function) {
  function = reinterpret_cast<Function>(dlsym(BigMemoryClientApi::handle, name));
}

}  // namespace

void* BigMemoryClientApi::handle = nullptr;
decltype(&BM_Init) BigMemoryClientApi::apiBmInit = nullptr;
decltype(&BM_CreateLink) BigMemoryClientApi::apiBmCreateLink = nullptr;
decltype(&BM_CreateNSSec) BigMemoryClientApi::apiBmCreateNs = nullptr;
decltype(&BM_DestroyNSSec) BigMemoryClientApi::apiBmDestroyNs = nullptr;
decltype(&BM_AllocSec) BigMemoryClientApi::apiBmAlloc = nullptr;
decltype(&BM_ExpandSec) BigMemoryClientApi::apiBmExpand = nullptr;
decltype(&BM_FreeSec) BigMemoryClientApi::apiBmFree = nullptr;
decltype(&BM_BatchFreeSec) BigMemoryClientApi::apiBmBatchFree = nullptr;
decltype(&BM_MapSec) BigMemoryClientApi::apiBmMap = nullptr;
decltype(&BM_Unmap) BigMemoryClientApi::apiBmUnmap = nullptr;
decltype(&BM_QueryResAttri) BigMemoryClientApi::apiBmQueryResAttri = nullptr;
decltype(&BM_CopySec) BigMemoryClientApi::apiBmCopy = nullptr;
decltype(&BM_ReadSec) BigMemoryClientApi::apiBmRead = nullptr;
decltype(&BM_WriteSec) BigMemoryClientApi::apiBmWrite = nullptr;
decltype(&BM_SpecificObjSwapInSec) BigMemoryClientApi::apiBmSpecificObjectSwapIn = nullptr;
decltype(&BM_GatherSec) BigMemoryClientApi::apiBmGather = nullptr;
decltype(&BM_MappedLength) BigMemoryClientApi::apiBmMappedLength = nullptr;
decltype(&BM_MapAtSec) BigMemoryClientApi::apiBmMapAt = nullptr;
decltype(&BM_QueryNode) BigMemoryClientApi::apiBmQueryNode = nullptr;
decltype(&BM_AllocBatchSec) BigMemoryClientApi::apiBmAllocBatch = nullptr;
decltype(&BM_KeepBatchSec) BigMemoryClientApi::apiBmKeepBatch = nullptr;
decltype(&BM_EndBatch) BigMemoryClientApi::apiBmEndBatch = nullptr;

std::string BigMemoryClientApi::GetBmClientPath() {
  const Ref<EnvHelper> environment = EnvHelper::GetInstance();
  if (environment == nullptr) {
    return "";
  }
  const std::string path = environment->GetHome() + "/tessel/" + environment->GetVersion() + "/" +
                           environment->GetBinaryType() + "/lib/mf/libbmclient.so";
  std::string realPath;
  if (Failed(FileUtil::RealPath(path, realPath))) {
    return "";
  }
  return realPath;
}

void* BigMemoryClientApi::LoadFunction(const char* name, std::string& error) {
  void* function = dlsym(handle, name);
  if (function == nullptr) {
    error = std::string("Failed to load function <") + name + "> with error <" + LoaderError() + ">";
    std::puts("Failed to load function");
  }
  return function;
}

bool BigMemoryClientApi::Open(std::string& error) {
  const std::string path = GetBmClientPath();
  if (path.empty()) {
    return false;
  }
  handle = dlopen(path.c_str(), RTLD_NOW);
  if (handle == nullptr) {
    error = "Failed to open library <" + path + "> with error <" + LoaderError() + ">";
    return false;
  }
  LoadOptional("BM_MappedLength", apiBmMappedLength);
  LoadOptional("BM_MapAtSec", apiBmMapAt);
  LoadOptional("BM_QueryNode", apiBmQueryNode);
  LoadOptional("BM_AllocBatchSec", apiBmAllocBatch);
  LoadOptional("BM_KeepBatchSec", apiBmKeepBatch);
  LoadOptional("BM_EndBatch", apiBmEndBatch);
  return Load("BM_Init", apiBmInit, error) && Load("BM_CreateLink", apiBmCreateLink, error) &&
         Load("BM_CreateNSSec", apiBmCreateNs, error) && Load("BM_DestroyNSSec", apiBmDestroyNs, error) &&
         Load("BM_AllocSec", apiBmAlloc, error) && Load("BM_ExpandSec", apiBmExpand, error) &&
         Load("BM_FreeSec", apiBmFree, error) && Load("BM_BatchFreeSec", apiBmBatchFree, error) &&
         Load("BM_MapSec", apiBmMap, error) && Load("BM_Unmap", apiBmUnmap, error) &&
         Load("BM_QueryResAttri", apiBmQueryResAttri, error) && Load("BM_CopySec", apiBmCopy, error) &&
         Load("BM_ReadSec", apiBmRead, error) && Load("BM_WriteSec", apiBmWrite, error) &&
         Load("BM_SpecificObjSwapInSec", apiBmSpecificObjectSwapIn, error) &&
         Load("BM_GatherSec", apiBmGather, error);
}

void BigMemoryClientApi::Close() {
  if (void* open = std::exchange(handle, nullptr); open != nullptr) {
    dlclose(open);
  }
}

}  // namespace vyn::common
