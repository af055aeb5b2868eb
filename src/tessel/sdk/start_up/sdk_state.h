#pragma once

// The process-wide objects of the SDK. They are never destroyed: a thread of the host program may still be
// inside a call while the process exits.

#include "cluster/cluster_zkadapter.h"
#include "cluster/meta_node_info.h"
#include "common/config/configuration.h"
#include "common/util/ref.h"
#include "common/wait/claim_once.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"

#include <atomic>
#include <cstdint>
#include <set>
#include <string>

namespace vyn::tessel {

/// The cache of broadcast variables. Null until BroadcastInitialize has made it.
extern common::Ref<BroadcastSdkCache>& g_broadcastCache;

/// The clients of the node server and of the metadata service. A call that needs one first assigns the
/// class's present instance to it (sdk_frame.h). That assignment writes nothing while the instance is the
/// same. Only an initialisation makes another instance, and no such call may run meanwhile.
extern common::Ref<ShuffleServerRPCEngine>& g_shuffleServerRPCEngine;
extern common::Ref<ShuffleMetaRPCEngine>& g_ShuffleMetaRPCEngine;

/// The process's record of the metadata leader. Null until leader discovery has run.
extern common::Ref<common::MetaNodeInfo>& g_metaNode_broadcast;
/// The adapter for ZooKeeper; null in an executor.
extern common::Ref<cluster::ClusterZKAdapter>& g_clusterZkAdapter_broadcast;
/// The process's configuration. Null until BroadcastInitialize has read it.
extern common::Ref<common::Configuration>& g_broadcastConf;

/// The claim of initialisation. The three flags below publish its state; start_up.cpp lists their values.
extern common::ClaimOnce& g_startUp;
/// Releases the claim of initialisation, whichever thread has it, so that the next initialisation can run.
void FreeInitClaim();

/// 1 while a thread has claimed or finished initialisation.
extern std::atomic<std::uint8_t> g_initClaim;
/// 1 until the first initialisation has finished.
extern std::atomic<std::uint8_t> g_initInProgress;
/// 1 once uninitialisation has run and no initialisation has succeeded since.
extern std::atomic<std::uint8_t> g_uninitClaim;

/// 0 on a node of the memory fabric, 1 outside it. BroadcastInitialize passes it to BmInitialize.
extern std::uint32_t g_mfClientFlag;
/// This node's id in the fabric, once it is known.
extern std::uint32_t g_mfNodeId;

/// The token of the application that was registered last, and the ids of the applications that this process
/// has registered. No lock guards them: the caller runs the registration functions one at a time, and not
/// while another thread is in a function on blocks.
extern std::string& g_appToken;
extern std::set<std::string>& g_registeredApps;

/// The address that GetRemoteNodeInfo reports for the local node.
inline constexpr const char* kLocalEndpoint = "127.0.0.1:9999";

}  // namespace vyn::tessel
