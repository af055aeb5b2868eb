// Operations on applications, the leader and broadcast variables.

#include "common/rpc/client_forms.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "vyn/variable.h"

#include <new>

namespace vyn::tessel {

using common::BaseMessage;

namespace {

Ref<ApplicationRegisterRequest> MakeRegisterRequest(const std::string& appId, const std::string& token,
                                                    bool flag) {
  Ref<ApplicationRegisterRequest> request(new (std::nothrow) ApplicationRegisterRequest);
  if (request != nullptr) {
    request->ns = appId;
    request->token = token;
    request->registerFlag = flag;
  }
  return request;
}

}  // namespace

std::uint32_t ShuffleServerRPCEngine::AppRegister(const std::string& appId, bool flag,
                                                  Ref<NodeIdResponse>& response, const std::string& token) {
  const auto request = MakeRegisterRequest(appId, token, flag);
  VYN_CHECK_POINTER(request);
  const std::uint32_t status = SendCall(APP_REGISTER, request, response, 0);
  if (status == VYN_VARIABLE_WRONG_TOKEN) {  // for the caller, whose message ends with the recorded text
    static_cast<void>(VYN_FAIL(VYN_ERR_GENERIC, " wrong token for application " << appId));
  }
  VYN_FAIL_IF(Failed(status), VYN_ERR_GENERIC, "error to register app " << appId);
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::AppUnregister(const std::string& appId, const std::string& token) {
  const auto request = MakeRegisterRequest(appId, token, false);
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(Failed(SendCall(APP_UNREGISTER, request, BaseMessage::gNullPtr, 0)), VYN_ERR_GENERIC,
              "error to unregister application " << appId);
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::GetMetaLeaderInfo(const Ref<MetaLeaderInformation>& request,
                                                        Ref<MetaLeaderInformation>& response) {
  VYN_FAIL_IF(request == nullptr, VYN_ERR_GENERIC, "Unexpected nullptr value request");
  VYN_FAIL_IF(Failed(SendCall(META_LEADER_INFO, request, response, 0)), VYN_ERR_GENERIC,
              "Get meta leader info failed");
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::BroadcastBlockBatchCreate(const Ref<BroadcastBlockBatch>& request,
                                                                Ref<BroadcastBlockInfo>& response,
                                                                const std::string& /*token*/) {
  VYN_FAIL_IF(request == nullptr, VYN_ERR_GENERIC, "Unexpected nullptr value request");
  VYN_FAIL_IF(request->appId.empty(), VYN_ERR_GENERIC, "AppId is empty for broadcast block batch create.");
  VYN_FAIL_IF(request->sizes.empty(), VYN_ERR_GENERIC, "broadcast block is empty.");
  VYN_FAIL_IF(Failed(SendCall(BROADCAST_BLOCK_BATCH_CREATE, request, response, mBroadcastVarCreateTimeout)),
              VYN_ERR_GENERIC, "Broadcast block batch create failed");
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::BroadcastBlockBatchFetch(const Ref<BroadcastVar>& request,
                                                               Ref<BroadcastBlockInfo>& response,
                                                               const std::string& /*token*/) {
  VYN_FAIL_IF(request == nullptr, VYN_ERR_GENERIC, "Unexpected nullptr value request");
  VYN_FAIL_IF(request->appId.empty(), VYN_ERR_GENERIC, "AppId is empty for broadcast block batch create.");
  VYN_FAIL_IF(Failed(SendCall(BROADCAST_BLOCK_BATCH_FETCH, request, response, mBroadcastVarFetchTimeout)),
              VYN_ERR_GENERIC, "Broadcast block batch fetch failed");
  return VYN_OK;
}

}  // namespace vyn::tessel
