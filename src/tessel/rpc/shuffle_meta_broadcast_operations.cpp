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

/// A call with a request about one application.
struct ApplicationCall {
  short opcode;
  const char* request;  ///< its name in the log
  const char* refusal;  ///< the error text for an invalid application
  const char* failure;  ///< the beginning of the text for a failed call
};

namespace {

/// For one attempt to send a heartbeat.
constexpr std::chrono::seconds kHeartBeatLimit{10};

constexpr ApplicationCall kBroadcastVarNew{
    BROADCAST_VAR_NEW, "var", "Application Id does not compliance with specifications in broadcast var new",
    "Rpc failed to send create broadcast var as "};
constexpr ApplicationCall kBroadcastVarRemove{
    BROADCAST_VAR_REMOVE, "var",
    "Broadcast variable appId does not compliance with specifications in remove action",
    "Rpc failed to send remove broadcast var as "};
constexpr ApplicationCall kBroadcastVarGet{
    BROADCAST_VAR_GET, "var",
    "Broadcast variable appId does not compliance with specifications in get action",
    "Rpc failed to send get broadcast variable info as "};
constexpr ApplicationCall kBroadcastVarInfoAdd{
    BROADCAST_VAR_INFO_ADD, "info",
    "Broadcast variable appId does not compliance with specifications in remove action",
    "Rpc failed to send var info add message as "};
constexpr ApplicationCall kBroadcastBlockInfoAdd{
    BROADCAST_BLOCK_INFO_ADD, "info",
    "Broadcast variable appId does not compliance with specifications in remove action",
    "Rpc failed to send block info add message as "};
constexpr ApplicationCall kBroadcastBlockInfoGet{
    BROADCAST_BLOCK_INFO_GET, "request",
    "Application Id does not compliance with specifications in broadcast block info fetch",
    "Rpc failed to send block info fetch message as "};

}  // namespace

template <typename Request>
std::uint32_t ShuffleMetaRPCEngine::Call(const ApplicationCall& call, const Ref<Request>& request,
                                         const Ref<BaseMessage>& response) {
  VYN_CHECK_POINTER_NAMED(request, call.request);
  VYN_FAIL_IF(!IsIdentifier(request->appId), VYN_ERR_INVALID_PARAM, call.refusal);
  return Call(call.opcode, request, response, call.failure);
}

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
  return Call(kBroadcastVarNew, var, BaseMessage::gNullPtr);
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarRemove(const Ref<BroadcastVar>& var) {
  return Call(kBroadcastVarRemove, var, BaseMessage::gNullPtr);
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarInfoGet(const Ref<BroadcastVar>& var,
                                                        Ref<BroadcastBlockInfo>& info) {
  return Call(kBroadcastVarGet, var, info);
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastVarInfoAdd(const Ref<BroadcastBlockInfo>& info) {
  return Call(kBroadcastVarInfoAdd, info, BaseMessage::gNullPtr);
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastBlockInfoAdd(const Ref<BroadcastBlockInfo>& info) {
  return Call(kBroadcastBlockInfoAdd, info, BaseMessage::gNullPtr);
}

std::uint32_t ShuffleMetaRPCEngine::BroadcastBlockInfoFetch(const Ref<BlockInfoRequest>& request,
                                                            Ref<BlockBmInfo>& info) {
  return Call(kBroadcastBlockInfoGet, request, info);
}

}  // namespace vyn::tessel
