// The exported functions that fetch ids and sizes of a variable's blocks into the cache of a process that did
// not create them.

#include "common/log/exceptions.h"
#include "common/util/text.h"
#include "tessel/sdk/broadcast/block_lookup.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/broadcast.h"

#include <algorithm>
#include <limits>

using vyn::Failed;
using namespace vyn::tessel;

namespace {

constexpr unsigned int kAnyCount = std::numeric_limits<unsigned int>::max();

/// Copies the sizes into the caller's array if they fit. \param room how many fit.
unsigned int Give(const char* appId, unsigned int broadcastId, const std::vector<unsigned long>& sizes,
                  unsigned long* blockSizes, unsigned int room, unsigned int* blockNum) {
  if (blockNum != nullptr) {
    *blockNum = static_cast<unsigned int>(sizes.size());
  }
  if (sizes.size() > room) {
    return VYN_FAIL(VYN_ERR_BC_INVALID_PARAM,
                    "Broadcast variable { appId: " << appId << ", broadcastId: " << broadcastId << " } has "
                                                   << sizes.size() << " blocks, the caller has room for "
                                                   << room);
  }
  if (!sizes.empty()) {
    VYN_CHECK_ARGUMENT(blockSizes);
  }
  std::copy(sizes.begin(), sizes.end(), blockSizes);
  return VYN_OK;
}

unsigned int Fetch(const char* appId, unsigned int broadcastId, unsigned long* blockSizes, unsigned int room,
                   unsigned int* blockNum) {
  VYN_CHECK_TEXT(appId, false);
  if (room != 0 && blockNum != nullptr) {
    VYN_CHECK_ARGUMENT(blockSizes);
  }
  VYN_LOG_DEBUG("Start to batch fetch broadcast block, appId: " << appId << ", broadcastId: " << broadcastId);
  VYN_CHECK_POINTER(g_broadcastCache);
  // Kept for the next call, so that finding a cached variable allocates nothing.
  thread_local std::string name;
  vyn::common::GenBcVarName(appId, broadcastId, name);
  if (auto known = g_broadcastCache->GetVarInfo(name); known != nullptr) {
    VYN_LOG_INFO("Local cached, broadcastID " << broadcastId);
    return Give(appId, broadcastId, known->mBlockSizes, blockSizes, room, blockNum);
  }
  VYN_LOG_INFO("Not local cached, broadcast block, appId: " << appId << ", broadcastId: " << broadcastId);
  vyn::common::Ref<BroadcastBlockInfo> answer;
  if (const unsigned int status = AskForBlocks(appId, broadcastId, answer); Failed(status)) {
    return status;
  }
  const unsigned int given = Give(appId, broadcastId, answer->sizes, blockSizes, room, blockNum);
  if (!g_broadcastCache->InsertVarInfo(name, answer->bmIds, answer->sizes)) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to insert block infos for " << name);
  }
  return given;
}

}  // namespace

unsigned int FetchBroadcastBlockBatch(const char* appId, unsigned int broadcastId,
                                      unsigned long* blockSizes) try {
  return Fetch(appId, broadcastId, blockSizes, kAnyCount, nullptr);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int FetchBroadcastBlockBatchInto(const char* appId, unsigned int broadcastId,
                                          unsigned long* blockSizes, unsigned int room,
                                          unsigned int* blockNum) try {
  VYN_CHECK_ARGUMENT(blockNum);
  *blockNum = 0;
  return Fetch(appId, broadcastId, blockSizes, room, blockNum);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
