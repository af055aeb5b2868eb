// The exported functions that map, read and write blocks of a broadcast variable.

#include "common/log/error_info.h"
#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/util/text.h"
#include "tessel/sdk/big_memory/big_memory_client_api.h"
#include "tessel/sdk/broadcast/block_lookup.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"

#include <cstdint>
#include <string>

using vyn::Failed;
using vyn::common::CheckInputWithCharPtr;
using vyn::common::GenBcVarName;
using vyn::common::LastErrorText;
using vyn::tessel::BroadcastVarInfo;
using vyn::tessel::g_appToken;
using vyn::tessel::g_broadcastCache;
using vyn::tessel::RenewIfStale;

namespace {

constexpr int kMapReadWrite = 3;
constexpr int kMapShared = 1;

unsigned int FailBlockId(unsigned int blockId, const std::string& name, const BroadcastVarInfo& info) {
  return VYN_FAIL(VYN_ERR_BC_INVALID_PARAM, "Invalid block id: " << blockId << " of broadcast variable "
                                                                 << name << " with " << info.mBmIds.size()
                                                                 << " blocks");
}

void* AsPointer(std::uint64_t address) {
  return reinterpret_cast<void*>(
      address);  // NOLINT(performance-no-int-to-ptr): the table keeps addresses as words
}

/// Refuses a mapping that is shorter than the record says: the caller would read behind its end.
unsigned int CheckLength(const BroadcastVarInfo& info, unsigned int blockId, void* address) {
  const auto lengthOf = vyn::common::BigMemoryClientApi::apiBmMappedLength;
  const char* bmId = info.mBmIds[blockId].c_str();
  unsigned long length = 0;
  if (lengthOf == nullptr || blockId >= info.mBlockSizes.size() || lengthOf(bmId, address, &length) != 0 ||
      length >= info.mBlockSizes[blockId]) {
    return VYN_OK;
  }
  BmUnmap(bmId, address);
  return VYN_FAIL(VYN_ERR_BC_INTERNAL,
                  "its record says " << info.mBlockSizes[blockId] << " bytes, its node has " << length);
}

/// Maps a block unless another thread has done it meanwhile. \param address receives the address.
unsigned int MapBlock(const char* appId, BroadcastVarInfo& info, unsigned int blockId, void*& address) {
  vyn::sync::WriterLock lock(info.mBlockLock);
  std::uint64_t& mapped = info.mRawAddrs[blockId];
  if (mapped != 0) {
    address = AsPointer(mapped);
    return VYN_OK;
  }
  unsigned int status =
      BmMmap(info.mBmIds[blockId].c_str(), kMapReadWrite, kMapShared, &address, appId, g_appToken.c_str());
  if (!Failed(status)) {
    status = CheckLength(info, blockId, address);
  }
  if (!Failed(status)) {
    mapped = reinterpret_cast<std::uint64_t>(address);
    info.mUsed = true;
  }
  return status;
}

}  // namespace

std::uint32_t ObtainBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                       void** addr) try {
  if (Failed(CheckInputWithCharPtr(appId, false, false))) {
    return VYN_ERR_BC_INVALID_PARAM;
  }
  VYN_CHECK_POINTER(g_broadcastCache);
  VYN_CHECK_POINTER(addr);
  // Kept for the next call, so that finding a mapped block allocates nothing.
  thread_local std::string name;
  GenBcVarName(appId, broadcastId, name);
  const auto info = g_broadcastCache->GetVarInfo(name);
  if (info == nullptr) {
    *addr = nullptr;
    return VYN_FAIL(VYN_ERR_BC_INTERNAL,
                    "Internal error, hasn't find record for broadcast variable: " << name);
  }
  if (blockId >= info->mBmIds.size()) {
    *addr = nullptr;
    return FailBlockId(blockId, name, *info);
  }
  {
    vyn::sync::ReaderLock lock(info->mBlockLock);
    if (const std::uint64_t mapped = info->mRawAddrs[blockId]; mapped != 0) {
      *addr = AsPointer(mapped);
      return VYN_OK;
    }
  }

  void* address = nullptr;
  unsigned int status = MapBlock(appId, *info, blockId, address);
  if (Failed(status)) {
    if (const auto renewed = RenewIfStale(appId, broadcastId, name, info); renewed != nullptr) {
      status = MapBlock(appId, *renewed, blockId, address);
    }
  }
  if (Failed(status)) {
    *addr = nullptr;
    return VYN_FAIL(status, "Failed to obtain the raw address of block "
                                << blockId << " for broadcast variable " << name << " as "
                                << LastErrorText());
  }
  *addr = address;
  VYN_LOG_DEBUG("Broadcast SDK exit function<ObtainBroadcastBlockAddr>");
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t ReleaseBroadcastBlockAddr(const char* appId, unsigned int broadcastId, unsigned int blockId,
                                        void* addr) try {
  if (Failed(CheckInputWithCharPtr(appId, false, false))) {
    return VYN_ERR_BC_INVALID_PARAM;
  }
  if (addr == nullptr) {
    return VYN_FAIL(VYN_ERR_BC_INVALID_PARAM, "Invalid params: ptr address to release is nullptr");
  }
  VYN_CHECK_POINTER(g_broadcastCache);
  const std::string name = GenBcVarName(appId, broadcastId);
  const auto info = g_broadcastCache->GetVarInfo(name);
  if (info == nullptr) {
    VYN_LOG_DEBUG("Try to release don't exist raw address of broadcast variable: " << name);
    return VYN_OK;
  }
  if (blockId >= info->mBmIds.size()) {
    return FailBlockId(blockId, name, *info);
  }
  unsigned int status = VYN_OK;
  {
    vyn::sync::WriterLock lock(info->mBlockLock);
    std::uint64_t& mapped = info->mRawAddrs[blockId];
    if (mapped == 0) {
      lock.Unlock();
      VYN_LOG_DEBUG("Release don't exist raw address of block id: " << blockId);
      return VYN_OK;
    }
    status = BmUnmap(info->mBmIds[blockId].c_str(), addr);
    if (!Failed(status)) {
      mapped = 0;
    }
  }
  if (Failed(status)) {
    return VYN_FAIL(
        status, "Failed to release the raw address of block id: " << blockId << " as " << LastErrorText());
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t ReadRemoteBlock(const char* appId, unsigned int broadcastId, unsigned int blockId, void* buffer,
                              const char* token) try {
  if (Failed(CheckInputWithCharPtr(appId, false, false)) || Failed(vyn::common::CheckToken(token))) {
    return VYN_ERR_BC_INVALID_PARAM;
  }
  VYN_CHECK_POINTER(g_broadcastCache);
  const std::string name = GenBcVarName(appId, broadcastId);
  const auto info = g_broadcastCache->GetVarInfo(name);
  if (info == nullptr) {
    VYN_LOG_ERROR("Can not found cache info for broadcast variable " << name);
    return VYN_ERR_GENERIC;
  }
  // The two lists may differ in length.
  if (blockId >= info->mBmIds.size() || blockId >= info->mBlockSizes.size() ||
      info->mBmIds[blockId].empty()) {
    VYN_LOG_ERROR("Can not found BM for broadcast variable " << name << " block " << blockId);
    return VYN_ERR_GENERIC;
  }
  {
    vyn::sync::WriterLock lock(info->mBlockLock);
    info->mUsed = true;  // the caller may have read other blocks
  }
  if (Failed(BmRead(info->mBmIds[blockId].c_str(), 0, info->mBlockSizes[blockId], buffer, 0, appId, token))) {
    RenewIfStale(appId, broadcastId, name, info);
    VYN_LOG_ERROR("Error to read remote block " << blockId << " as " << LastErrorText());
    return VYN_ERR_BC_REMOTE_BLOCK;
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::uint32_t WriteRemoteBlock(const char* appId, const char* bmId, const void* data, unsigned long size,
                               const char* token) try {
  if (Failed(CheckInputWithCharPtr(appId, false, false))) {
    return VYN_ERR_BC_INVALID_PARAM;
  }
  const char* shownId = bmId == nullptr ? "" : bmId;
  VYN_LOG_DEBUG("BmId " << shownId << " size " << size);
  // BmWrite only reads it.
  void* buffer = const_cast<void*>(data);
  if (Failed(BmWrite(bmId, 0, size, buffer, 0, appId, token))) {
    VYN_LOG_ERROR("Error to write remote block " << shownId << " as " << LastErrorText());
    return VYN_ERR_BC_REMOTE_BLOCK;
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
