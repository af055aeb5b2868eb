#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"

#include "common/log/logging.h"

#include <new>

namespace vyn::tessel {

using common::Ref;

Ref<BroadcastVarInfo> BroadcastSdkCache::GetVarInfo(const std::string& name) {
  sync::ReaderLock lock(mTableLock);
  const auto found = mVarTable.find(name);
  return found == mVarTable.end() ? Ref<BroadcastVarInfo>() : found->second;
}

Ref<BroadcastVarInfo> BroadcastSdkCache::GenerateVarInfo(const std::vector<std::string>& bmIds,
                                                         const std::vector<unsigned long>& blockSizes) {
  try {
    return Ref<BroadcastVarInfo>(new BroadcastVarInfo(bmIds, blockSizes));
  } catch (const std::bad_alloc&) {
    VYN_LOG_ERROR("New BroadcastVarInfoPtr failed, return null");
    return nullptr;
  }
}

bool BroadcastSdkCache::InsertVarInfo(const std::string& name, const std::vector<std::string>& bmIds,
                                      const std::vector<unsigned long>& blockSizes) {
  sync::WriterLock lock(mTableLock);
  const auto info = GenerateVarInfo(bmIds, blockSizes);
  if (info == nullptr) {
    VYN_LOG_ERROR("Failed to generate var info.");
    return false;
  }
  try {
    mVarTable.emplace(name, info);
  } catch (const std::bad_alloc&) {
    VYN_LOG_ERROR("Failed to generate var info.");
    return false;
  }
  return true;
}

void BroadcastSdkCache::RemoveVarInfo(const std::string& name) {
  sync::WriterLock lock(mTableLock);
  mVarTable.erase(name);
}

void BroadcastSdkCache::RemoveAppInfo(const std::string& appName) {
  sync::WriterLock lock(mTableLock);
  std::erase_if(mVarTable, [&](const auto& entry) { return entry.first.starts_with(appName); });
}

void BroadcastSdkCache::CleanTable() {
  sync::WriterLock lock(mTableLock);
  mVarTable.clear();
}

}  // namespace vyn::tessel
