#include "tessel/sdk/broadcast/block_lookup.h"

#include "common/log/error_info.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/start_up/sdk_frame.h"

#include <cerrno>

namespace vyn::tessel {

bool IsAnswerAbout(const BroadcastBlockInfo& answer, const char* appId, unsigned int broadcastId) {
  if (answer.appId != appId || answer.broadcastId != broadcastId) {
    static_cast<void>(VYN_FAIL(VYN_ERR_GENERIC, "The node server was asked for broadcast variable { appId: "
                                                    << appId << ", broadcastId: " << broadcastId
                                                    << " } and answered with { appId: " << answer.appId
                                                    << ", broadcastId: " << answer.broadcastId << " }"));
    return false;
  }
  if (answer.bmIds.size() != answer.sizes.size()) {
    static_cast<void>(VYN_FAIL(VYN_ERR_GENERIC, "The record of broadcast variable { appId: "
                                                    << appId << ", broadcastId: " << broadcastId << " } has "
                                                    << answer.bmIds.size() << " blocks and "
                                                    << answer.sizes.size() << " sizes"));
    return false;
  }
  return true;
}

unsigned int AskForBlocks(const char* appId, unsigned int broadcastId,
                          common::Ref<BroadcastBlockInfo>& answer) {
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
  if (!IsAnswerAbout(*blockInfos, appId, broadcastId)) {
    return VYN_ERR_GENERIC;
  }
  answer = blockInfos;
  return VYN_OK;
}

common::Ref<BroadcastVarInfo> RenewIfStale(const char* appId, unsigned int broadcastId,
                                           const std::string& name,
                                           const common::Ref<BroadcastVarInfo>& known) {
  const auto* failure = common::RetrieveErrorInfo();
  if (failure == nullptr || failure->mDetail != -ENOENT) {
    return nullptr;
  }
  const common::ErrorInfo cause(failure->mCode, failure->mMessage, failure->mDetail);
  common::Ref<BroadcastVarInfo> renewed;
  common::Ref<BroadcastBlockInfo> present;
  if (!Failed(AskForBlocks(appId, broadcastId, present)) && present->bmIds != known->mBmIds) {
    bool used = false;
    {
      sync::ReaderLock lock(known->mBlockLock);
      used = known->mUsed;
    }
    VYN_LOG_WARN("Broadcast variable " << name << " was deleted and created anew, its old blocks are gone");
    if (g_broadcastCache->GetVarInfo(name) == known) {  // else another thread has fetched it anew
      g_broadcastCache->RemoveVarInfo(name);
    }
    if (!used && present->sizes == known->mBlockSizes &&
        g_broadcastCache->InsertVarInfo(name, present->bmIds, present->sizes)) {
      renewed = g_broadcastCache->GetVarInfo(name);
      if (renewed != nullptr && renewed->mBlockSizes != known->mBlockSizes) {
        renewed = nullptr;  // another thread's entry, of yet another variable
      }
    }
  }
  common::VynSetErrorInfo(&cause);
  return renewed;
}

}  // namespace vyn::tessel
