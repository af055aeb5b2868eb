// The exported functions that create and delete a variable at the metadata service.

#include "common/log/exceptions.h"
#include "common/util/text.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/broadcast.h"

using vyn::Failed;
using vyn::common::GenBcVarName;
using vyn::common::LastErrorText;
using namespace vyn::tessel;

unsigned int CreateBroadcastVar(const char* appId, unsigned int broadcastId, unsigned int blockNum) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_LOG_DEBUG("Broadcast SDK enter function<CreateBroadcastVar> appID: "
                << appId << " broadcastId: " << broadcastId << " block num: " << blockNum);
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "Failed to get meta rpc cli as " << LastErrorText());
  }
  auto bcVar = NewMessage<BroadcastVar>();
  VYN_CHECK_POINTER(bcVar);
  bcVar->appId = appId;
  bcVar->broadcastId = broadcastId;
  bcVar->blockNum = blockNum;
  const unsigned int status = g_ShuffleMetaRPCEngine->BroadcastVarNew(bcVar);
  if (Failed(status)) {
    static_cast<void>(VYN_FAIL(
        status, "Failed to create broadcast variable { appID: " << appId << ", broadcastId: " << broadcastId
                                                                << " as rpc request return error."));
  }
  VYN_LOG_DEBUG("Broadcast SDK exit function<broadcast_var_create>");
  return Failed(status) ? status : VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int DeleteBroadcastVar(const char* appId, unsigned int broadcastId) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_CHECK_POINTER(g_broadcastCache);
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "[Broadcast] Failed to get meta rpc cli " << LastErrorText());
  }
  // The entry is removed even when the call below fails. Mapped blocks stay mapped.
  g_broadcastCache->RemoveVarInfo(GenBcVarName(appId, broadcastId));
  auto request = NewMessage<BroadcastVar>();
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->broadcastId = broadcastId;
  const unsigned int status = g_ShuffleMetaRPCEngine->BroadcastVarRemove(request);
  if (Failed(status)) {
    return VYN_FAIL(status,
                    "Failed to remove broadcast variable: " << broadcastId << " as get meta rpc cli error.");
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
