// Operations on applications and broadcast variables. An operation checks its arguments, makes its call and
// reads the response. It logs the code of a failed call and returns 2060009.

#include "common/message/heart_beat_message.h"
#include "common/rpc/client_forms.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <new>

namespace vyn::tessel {

using common::BaseMessage;
using common::IsIdentifier;

namespace {

/// For one attempt to send a heartbeat.
constexpr std::chrono::seconds kHeartBeatLimit{10};

}  // namespace

std::uint32_t ShuffleMetaRPCEngine::HeartBeat(const std::string& appName, unsigned char processType,
                                              const std::string& processName, const std::string& content,
                                              bool flag) {
  VYN_FAIL_IF(!IsIdentifier(appName) || !IsIdentifier(processName), VYN_ERR_INVALID_PARAM,
              "appName or processName does not compliance with specifications in heart beat");
  const Ref<common::HeartBeatMessage> request(
      new (std::nothrow) common::HeartBeatMessage(appName, processType, processName, content, flag));
  VYN_CHECK_POINTER(request);
  const std::uint32_t status = SendAndWaitReply(HEART_BEAT, request, BaseMessage::gNullPtr, kHeartBeatLimit);
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC,
              "Rpc failed to send heart beat message as appName: "
                  << appName << " processType: " << int{processType} << ", process name: " << processName
                  << ", content is: " << content << " flag is: " << flag);
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::AppRemove(const std::string& appId) {
  VYN_FAIL_IF(!IsIdentifier(appId), VYN_ERR_INVALID_PARAM,
              "shuffle blob name does not compliance with specifications in bag get info");
  const Ref<ShuffleApplication> request(new (std::nothrow) ShuffleApplication);
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  const std::uint32_t status = SendAndWaitReply(APP_REMOVE, request, BaseMessage::gNullPtr);
  if (status == VYN_ERR_GENERIC) {
    return status;
  }
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, "Rpc failed to send remove app as " << status);
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarNew(const Ref<BroadcastVar>& var) {
  VYN_CHECK_POINTER(var);
  VYN_FAIL_IF(!IsIdentifier(var->appId), VYN_ERR_INVALID_PARAM,
              "Application Id does not compliance with specifications in broadcast var new");
  return Call(BROADCAST_VAR_NEW, var, BaseMessage::gNullPtr, "Rpc failed to send create broadcast var as ");
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarRemove(const Ref<BroadcastVar>& var) {
  VYN_CHECK_POINTER(var);
  VYN_FAIL_IF(!IsIdentifier(var->appId), VYN_ERR_INVALID_PARAM,
              "Broadcast variable appId does not compliance with specifications in remove action");
  return Call(BROADCAST_VAR_REMOVE, var, BaseMessage::gNullPtr,
              "Rpc failed to send remove broadcast var as ");
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarInfoGet(const Ref<BroadcastVar>& var,
                                                        Ref<BroadcastBlockInfo>& info) {
  VYN_CHECK_POINTER(var);
  VYN_FAIL_IF(!IsIdentifier(var->appId), VYN_ERR_INVALID_PARAM,
              "Broadcast variable appId does not compliance with specifications in get action");
  return Call(BROADCAST_VAR_GET, var, info, "Rpc failed to send get broadcast variable info as ");
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarInfoAdd(const Ref<BroadcastBlockInfo>& info) {
  VYN_CHECK_POINTER(info);
  VYN_FAIL_IF(!IsIdentifier(info->appId), VYN_ERR_INVALID_PARAM,
              "Broadcast variable appId does not compliance with specifications in remove action");
  return Call(BROADCAST_VAR_INFO_ADD, info, BaseMessage::gNullPtr,
              "Rpc failed to send var info add message as ");
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastBlockInfoAdd(const Ref<BroadcastBlockInfo>& info) {
  VYN_CHECK_POINTER(info);
  VYN_FAIL_IF(!IsIdentifier(info->appId), VYN_ERR_INVALID_PARAM,
              "Broadcast variable appId does not compliance with specifications in remove action");
  return Call(BROADCAST_BLOCK_INFO_ADD, info, BaseMessage::gNullPtr,
              "Rpc failed to send block info add message as ");
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastBlockInfoFetch(const Ref<BlockInfoRequest>& request,
                                                            Ref<BlockBmInfo>& info) {
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(!IsIdentifier(request->appId), VYN_ERR_INVALID_PARAM,
              "Application Id does not compliance with specifications in broadcast block info fetch");
  return Call(BROADCAST_BLOCK_INFO_GET, request, info, "Rpc failed to send block info fetch message as ");
}

}  // namespace vyn::tessel
