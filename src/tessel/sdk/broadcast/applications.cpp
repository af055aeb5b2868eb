// The exported functions on applications: registration with the node server, the end of an application, and
// the choice of nodes for blocks. The caller runs the registration functions one at a time (sdk_state.h).

#include "common/log/exceptions.h"
#include "common/util/system.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "tessel/sdk/variable/application_tokens.h"
#include "vyn/broadcast.h"

using vyn::Failed;
using vyn::common::LastErrorText;
using namespace vyn::tessel;

unsigned int RegisterBroadcastApp(const char* appId, bool flag, const char* token, bool* registered) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_CHECK_TOKEN(token);
  VYN_CHECK_ARGUMENT(registered);
  *registered = true;
  if (g_mfClientFlag != 0) {
    *registered = false;
    VYN_LOG_WARN("This is not a MF node and do not support register application operation.");
    SetToken(appId, token);
    return VYN_OK;
  }
  if (g_registeredApps.find(appId) != g_registeredApps.end()) {
    AddToken(appId, token);
    return VYN_OK;
  }
  if (g_shuffleServerRPCEngine == nullptr) {  // in a driver, at the first registration
    VYN_LOG_ERROR("g_shuffleServerRPCEngine is nullptr");
    g_shuffleServerRPCEngine = ShuffleServerRPCEngine::CreateInstance();
    VYN_CHECK_POINTER(g_shuffleServerRPCEngine);
    g_shuffleServerRPCEngine->Initialize(1, true);  // if this fails, the call below fails, too
  } else if (!ShuffleServerRPCEngine::mPoolMode) {  // made by a call before there was a configuration
    g_shuffleServerRPCEngine->Initialize(1, true);
  }
  if (!RefreshServerClient()) {
    return VYN_FAIL(VYN_ERR_BC_SERVER_CLIENT, "Failed to get shuffle rpc cli " << LastErrorText());
  }
  auto response = NewMessage<NodeIdResponse>();
  VYN_CHECK_POINTER(response);
  const unsigned int status = g_shuffleServerRPCEngine->AppRegister(appId, flag, response, token);
  g_appToken = token;
  if (Failed(status)) {
    return VYN_FAIL(status,
                    "Using AppName " << appId << " to register Application error!" << LastErrorText());
  }
  g_mfNodeId = response->nodeId;
  g_registeredApps.insert(appId);
  SetToken(appId, token);
  VYN_LOG_INFO("[Broadcast] The successfully registered AppName is " << appId);
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int UnRegisterBroadcastApp(const char* appId) try {
  VYN_CHECK_TEXT(appId, false);
  const unsigned int status = BroadcastUnregisterApp(appId);
  g_appToken.clear();
  RemoveToken(appId);
  if (Failed(status)) {
    return VYN_FAIL(status,
                    "Using AppName " << appId << " to unregister application error!" << LastErrorText());
  }
  VYN_LOG_DEBUG("[Broadcast] The successfully unregistered AppName is " << appId);
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int BroadcastUnregisterApp(const char* appId) try {
  VYN_CHECK_TEXT(appId, false);
  if (!RefreshServerClient()) {
    return VYN_FAIL(VYN_ERR_SERVER_CLIENT,
                    "Failed to unregister " << appId << " as get shuffle rpc cli " << LastErrorText());
  }
  const unsigned int status = g_shuffleServerRPCEngine->AppUnregister(appId, g_appToken);
  if (Failed(status)) {
    return VYN_FAIL(status, "Failed to unregister " << appId << " as " << LastErrorText());
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int MarkBroadcastApplicationCompleted(const char* appId) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_CHECK_POINTER(g_broadcastCache);
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "Failed to get meta rpc cli " << LastErrorText());
  }
  if (Failed(g_ShuffleMetaRPCEngine->AppRemove(appId))) {
    VYN_LOG_ERROR("Failed to mark completed status of application: " << appId);
    return VYN_ERR_BC_INTERNAL;
  }
  g_broadcastCache->RemoveAppInfo(appId);
  g_registeredApps.erase(appId);
  RemoveToken(appId);
  VYN_LOG_INFO("Success to mark completed status of application: " << appId);
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int GetRemoteNodeInfo(const char* appId, std::vector<std::string>& candidateNodes,
                               std::vector<std::string>& selectedNodes, std::vector<unsigned short>& nodeIds,
                               std::vector<std::string>& hostNames, bool selectFlag) try {
  VYN_CHECK_TEXT(appId, false);
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "Failed to get meta rpc cli " << LastErrorText());
  }
  auto request = NewMessage<BroadcastRemoteNodeReq>();
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->selectFlag = selectFlag;
  request->candidateNodes.swap(candidateNodes);
  candidateNodes.clear();
  auto response = NewMessage<BroadcastRemoteNodeRsp>();
  VYN_CHECK_POINTER(response);
  if (Failed(g_ShuffleMetaRPCEngine->BroadcastRemoteNodeInfoGet(request, response))) {
    VYN_LOG_ERROR("Failed to get remote node info");
    return VYN_ERR_BC_INTERNAL;
  }
  if (g_mfClientFlag == 0) {
    // The blocks stay on this node, so each list gets one entry, for this node.
    nodeIds.push_back(static_cast<unsigned short>(g_mfNodeId));
    selectedNodes.push_back(kLocalEndpoint);
    hostNames.push_back(vyn::common::VynGetHostname());
    return VYN_OK;
  }
  selectedNodes = std::move(response->selectedNodes);
  nodeIds = std::move(response->nodeIds);
  hostNames = std::move(response->hostNames);
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
