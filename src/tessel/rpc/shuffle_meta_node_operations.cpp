// Operations on nodes, pool sizes and the validity of applications.

#include "common/rpc/client_forms.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <new>

namespace vyn::tessel {

using common::IsIdentifier;

std::uint32_t ShuffleMetaRPCEngine::BroadcastRemoteNodeInfoGet(const Ref<BroadcastRemoteNodeReq>& request,
                                                               Ref<BroadcastRemoteNodeRsp>& response) {
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(!IsIdentifier(request->appId), VYN_ERR_INVALID_PARAM,
              "Application Id does not compliance with specifications in broadcast remote node info get");
  return Call(BROADCAST_REMOTE_NODE_GET, request, response,
              "Rpc failed to send remote node info get message as ");
}

std::uint32_t ShuffleMetaRPCEngine::IsMfNode(const Ref<BroadcastRemoteNodeReq>& request,
                                             Ref<NodeIdResponse>& response) {
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(request->candidateNodes.empty(), VYN_ERR_INVALID_PARAM,
              "Current node is not allocated with any IP.");
  return Call(IS_MF_NODE, request, response, "Rpc failed to send mf node judge message as ");
}

std::uint32_t ShuffleMetaRPCEngine::GetMfCapacityList(const std::string& appId,
                                                      std::vector<std::string>& capacities) {
  const Ref<ShuffleApplication> request(new (std::nothrow) ShuffleApplication);
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  const Ref<ClusterCapacityMessage> response(new (std::nothrow) ClusterCapacityMessage);
  VYN_CHECK_POINTER(response);
  const std::uint32_t status = SendAndWaitReply(GET_MF_CAPACITY_LIST, request, response);
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, "Rpc failed to get mf capacity list as " << status);
  capacities.reserve(capacities.size() + response->caps.size());
  for (const auto& entry : response->caps) {
    capacities.push_back(entry->host + "-" + std::to_string(entry->capacityA) + "-" +
                         std::to_string(entry->capacityB));
  }
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::CheckValidApps(Ref<ShuffleApplicationIdList>& request,
                                                   Ref<ShuffleApplicationIdList>& response) {
  VYN_CHECK_POINTER(request);
  VYN_FAIL_IF(Failed(SendAndWaitReply(CHECK_VALID_APP, request, response)), VYN_ERR_META_RPC,
              "Failed to call rpc func to check valid applications.");
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::GetUnavailableNodeList(const std::string& appId,
                                                           std::vector<std::string>& nodes) {
  const Ref<ShuffleApplication> request(new (std::nothrow) ShuffleApplication);
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  const Ref<HostMessage> response(new (std::nothrow) HostMessage);
  VYN_CHECK_POINTER(response);
  VYN_LOG_DEBUG("Send get unavailable node list request for " << appId);
  const std::uint32_t status = SendAndWaitReply(GET_UNAVAILABLE_NODE_LIST, request, response);
  nodes = response->hosts;
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC,
              "Failed to send rpc message GET_UNAVAILABLE_NODE_LIST as " << status);
  return VYN_OK;
}

}  // namespace vyn::tessel
