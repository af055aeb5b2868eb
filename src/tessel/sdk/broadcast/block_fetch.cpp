// The exported function that fetches ids and sizes of a variable's blocks into the cache of a process that
// did not create them.

#include "common/log/exceptions.h"
#include "common/util/text.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/broadcast.h"

#include <algorithm>

using vyn::Failed;
using namespace vyn::tessel;

unsigned int FetchBroadcastBlockBatch(const char* appId, unsigned int broadcastId,
                                      unsigned long* blockSizes) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_CHECK_ARGUMENT(blockSizes);
  VYN_LOG_DEBUG("Start to batch fetch broadcast block, appId: " << appId << ", broadcastId: " << broadcastId);
  VYN_CHECK_POINTER(g_broadcastCache);
  // Kept for the next call, so that finding a cached variable allocates nothing.
  thread_local std::string name;
  vyn::common::GenBcVarName(appId, broadcastId, name);
  if (auto known = g_broadcastCache->GetVarInfo(name); known != nullptr) {
    VYN_LOG_INFO("Local cached, broadcastID " << broadcastId);
    std::copy(known->mBlockSizes.begin(), known->mBlockSizes.end(), blockSizes);
    return VYN_OK;
  }
  VYN_LOG_INFO("Not local cached, broadcast block, appId: " << appId << ", broadcastId: " << broadcastId);
  if (!RefreshServerClient()) {
    VYN_LOG_ERROR("Batch fetch broadcast block error: serverRpcEnginePtr nullptr");
    return VYN_FAIL(VYN_ERR_BC_SERVER_CLIENT, "Error to get shuffle rpc cli.");
  }
  auto request = NewMessage<BroadcastVar>();
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->broadcastId = broadcastId;
  auto blockInfos = NewMessage<BroadcastBlockInfo>();
  VYN_CHECK_POINTER(blockInfos);
  const unsigned int status =
      g_shuffleServerRPCEngine->BroadcastBlockBatchFetch(request, blockInfos, g_appToken);
  if (Failed(status)) {
    return VYN_FAIL(status, "Failed to batch fetch blocks for broadcast variable { appId: "
                                << appId << ", broadcastId: " << broadcastId << " }");
  }
  std::copy(blockInfos->sizes.begin(), blockInfos->sizes.end(), blockSizes);
  if (!g_broadcastCache->InsertVarInfo(name, blockInfos->bmIds, blockInfos->sizes)) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to insert block infos for " << name);
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
