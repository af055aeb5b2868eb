// How a starting process finds the leader of the metadata service. A driver reads it from ZooKeeper and
// watches it; an executor asks its node server. BroadcastInitialize calls these functions on one thread at a
// time.

#include "tessel/sdk/start_up/leader_discovery.h"

#include "cluster/cluster_zkadapter.h"
#include "cluster/meta_node_info.h"
#include "cluster/session_keeper.h"
#include "common/config/configuration.h"
#include "common/log/exceptions.h"
#include "tessel/message/node_messages.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_frame.h"

using vyn::Failed;
using vyn::cluster::ClusterZKAdapter;
using vyn::cluster::SessionKeeper;
using namespace vyn::tessel;

namespace {

constexpr unsigned int kExecutorFlag = 1;

unsigned int ReadAndWatchLeader(SessionKeeper& keeper) {
  const int sessionTimeout = g_broadcastConf->GetInt("vyn.zookeeper.session.timeout", 0);
  if (Failed(keeper.Open(g_clusterZkAdapter_broadcast, sessionTimeout))) {
    VYN_LOG_ERROR("[Broadcast] Driver init zookeeper failed");
    return VYN_ERR_GENERIC;
  }
  if (Failed(g_clusterZkAdapter_broadcast->ZKGetAndUpdateMetaLeaderInfo(g_metaNode_broadcast))) {
    VYN_LOG_ERROR("[Broadcast] Driver get current meta leader info failed");
    return VYN_ERR_GENERIC;
  }
  if (Failed(g_clusterZkAdapter_broadcast->ZKRegisterWatcher(true))) {
    VYN_LOG_ERROR("Driver register watcher failed");
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

unsigned int FindLeaderInZooKeeper() {
  VYN_CHECK_POINTER(g_broadcastConf);
  g_clusterZkAdapter_broadcast = ClusterZKAdapter::GetInstance(vyn::cluster::NODE_ROLE_SDK);
  VYN_CHECK_POINTER(g_clusterZkAdapter_broadcast);
  auto& keeper = SessionKeeper::Get();
  unsigned int status = ReadAndWatchLeader(keeper);
  if (Failed(status) &&
      g_clusterZkAdapter_broadcast->ClusterZKCheckAvailable() == VYN_ERR_ZK_SESSION_EXPIRED) {
    // The session of an earlier start had ended, and only these calls have shown it.
    status = ReadAndWatchLeader(keeper);
  }
  return Failed(status) ? status : keeper.Start();
}

}  // namespace

namespace vyn::tessel {

unsigned int InitServerClientAndLeader(unsigned int flag) {
  VYN_LOG_DEBUG("BroadcastInitialize: flag: " << flag);
  if (flag == kExecutorFlag) {
    g_shuffleServerRPCEngine = ShuffleServerRPCEngine::CreateInstance();
    VYN_CHECK_POINTER(g_shuffleServerRPCEngine);
    g_shuffleServerRPCEngine->Initialize(1, true);  // if this fails, the question below fails, too
    g_mfClientFlag = 0;
  }
  return Failed(BroadcastGetMetaLeaderIp(flag)) ? VYN_ERR_GENERIC : VYN_OK;
}

}  // namespace vyn::tessel

unsigned int BroadcastInitRpcCliMetaLeaderIp(unsigned int flag) try {
  const unsigned int status = InitServerClientAndLeader(flag);
  if (status == VYN_ERR_GENERIC) {
    FreeInitClaim();
  }
  return status;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int BroadcastGetMetaLeaderIp(unsigned int flag) try {
  g_metaNode_broadcast = vyn::common::MetaNodeInfo::GetInstance();
  if ((flag & 1U) != 0) {
    if (Failed(BroadcastMetaLeaderInfoGet())) {
      VYN_LOG_ERROR("[Broadcast] Failed to get meta leader ip from shuffle service");
      return VYN_ERR_GENERIC;
    }
    return VYN_OK;
  }
  return flag == 0 ? FindLeaderInZooKeeper() : VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int BroadcastMetaLeaderInfoGet() try {
  VYN_LOG_DEBUG("Broadcast SDK get meta leader info from shuffle server");
  auto request = NewMessage<MetaLeaderInformation>("sdk");
  VYN_CHECK_POINTER(request);
  auto response = NewMessage<MetaLeaderInformation>("");
  VYN_CHECK_POINTER(response);
  if (!RefreshServerClient()) {
    VYN_LOG_ERROR("Broadcast SDK function<BroadcastMetaLeaderInfoGet> Err: serverRpcEnginePtr nullptr");
    return VYN_FAIL(VYN_ERR_BC_SERVER_CLIENT, "Error to get shuffle rpc cli.");
  }
  const unsigned int status = g_shuffleServerRPCEngine->GetMetaLeaderInfo(request, response);
  if (Failed(status)) {
    return VYN_FAIL(status, "Failed to get Meta leader info");
  }
  VYN_CHECK_POINTER(g_metaNode_broadcast);
  {
    vyn::sync::WriterLock lock(g_metaNode_broadcast->mLeaderLock);
    g_metaNode_broadcast->mLeaderAddress = response->metaLeaderInfo;
  }
  VYN_LOG_DEBUG("Broadcast get meta leader ip from shuffle server success");
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
