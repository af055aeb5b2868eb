#include "tessel/sdk/start_up/sdk_state.h"

namespace vyn::tessel {

common::Ref<BroadcastSdkCache>& g_broadcastCache = *new common::Ref<BroadcastSdkCache>;
common::Ref<ShuffleServerRPCEngine>& g_shuffleServerRPCEngine = *new common::Ref<ShuffleServerRPCEngine>;
common::Ref<ShuffleMetaRPCEngine>& g_ShuffleMetaRPCEngine = *new common::Ref<ShuffleMetaRPCEngine>;
common::Ref<common::MetaNodeInfo>& g_metaNode_broadcast = *new common::Ref<common::MetaNodeInfo>;
common::Ref<cluster::ClusterZKAdapter>& g_clusterZkAdapter_broadcast =
    *new common::Ref<cluster::ClusterZKAdapter>;
common::Ref<common::Configuration>& g_broadcastConf = *new common::Ref<common::Configuration>;
common::ClaimOnce& g_startUp = *new common::ClaimOnce;
std::atomic<std::uint8_t> g_initClaim{0};
std::atomic<std::uint8_t> g_initInProgress{1};
std::atomic<std::uint8_t> g_uninitClaim{0};
std::uint32_t g_mfClientFlag = 0;
std::uint32_t g_mfNodeId = 0;
std::string& g_appToken = *new std::string;
std::set<std::string>& g_registeredApps = *new std::set<std::string>;

void FreeInitClaim() {
  g_initClaim.store(0, std::memory_order_release);
  g_startUp.Free();
}

}  // namespace vyn::tessel
