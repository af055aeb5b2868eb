// Start and end of the SDK.
//
//   state                      g_initClaim  g_initInProgress  g_uninitClaim
//   loaded, nothing done            0              1                0
//   first initialisation runs       1              1                0
//   ready                           1              0                0
//   uninitialised                   0              0                1
//   re-initialisation runs          1              0                1
//
// The thread that has the claim g_startUp does the work. Other threads wait until the state is ready or the
// claim is free.

#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/log/exceptions.h"
#include "common/log/log.h"
#include "common/rpc/network.h"
#include "common/rpc/rpc_setter.h"
#include "common/util/file_util.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/leader_discovery.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <set>

using vyn::Failed;
using vyn::common::BaseApiUtil;
using vyn::common::ClaimOnce;
using vyn::common::Configuration;
using vyn::common::FileUtil;
using vyn::common::GetNodeIPSet;
using vyn::common::LastErrorText;
using vyn::common::StatusOfException;
using namespace vyn::tessel;

namespace {

constexpr unsigned int kDriverFlag = 0;

bool LoadConfiguration(const std::string& home) {
  const std::string path = home + "/conf/vyn.conf";
  const bool exists = FileUtil::IsPathExist(path);
  if (exists) {
    g_broadcastConf = Configuration::GetInstance(path);
  } else {
    std::printf("Configuration file doesn't exist\n");
  }
  if (!exists || g_broadcastConf == nullptr) {
    std::printf("Error to init config %s\n", LastErrorText());
    std::fflush(stdout);
    return false;
  }
  return true;
}

bool StartLogger() {
  const std::string name = g_broadcastConf->GetString("vyn.log.level", "");
  const unsigned int level = vyn::common::Log::StandardErrorLevel(name);
  if (ULOG_Init(2, static_cast<int>(level), nullptr, 0, 0) != 0) {
    std::printf("Error to init ulog module. as %s\n", ULOG_GetLastErrorMessage());
    std::fflush(stdout);
    return false;
  }
  return true;
}

bool SetTlsLibraries() {
  const std::string ssl = g_broadcastConf->GetString("vyn.tessel.rpc.openssl.path", "");
  const std::string crypto = g_broadcastConf->GetString("vyn.tessel.rpc.crypto.path", "");
  if (!FileUtil::IsPathValid(ssl) || !FileUtil::IsPathValid(crypto)) {
    VYN_LOG_ERROR("Ssl path or crypto path is not exist.");
    return false;
  }
  const int answer = SetOpensslDLopenLibPath(ssl.c_str(), crypto.c_str());
  if (answer != 1) {
    VYN_LOG_ERROR("Failed to set openssl path. return:" << answer);
    return false;
  }
  return true;
}

unsigned int ConnectMetadataClient(unsigned int flag) {
  const long timeout = g_broadcastConf->GetLong("vyn.tessel.rpc.shuffle_meta.timeout", 0);
  // A driver gets the leader from ZooKeeper alone, even if an earlier call has made a client of the node
  // server.
  const auto server = flag == kDriverFlag ? Ref<ShuffleServerRPCEngine>() : g_shuffleServerRPCEngine;
  g_ShuffleMetaRPCEngine = ShuffleMetaRPCEngine::CreateInstance(timeout, true, server);
  VYN_CHECK_POINTER(g_ShuffleMetaRPCEngine);
  g_ShuffleMetaRPCEngine->mConnectionCount = 1;
  // An unreachable metadata service does not fail the initialisation. The first call to it fails instead.
  g_ShuffleMetaRPCEngine->Initialize();
  return VYN_OK;
}

/// The steps of an initialisation. The next attempt replaces the objects of a failed one. Requires: the
/// claim.
unsigned int StartUp(const std::string& home, unsigned int flag) {
  // Until the logger runs, failures are printed to standard output.
  if (!LoadConfiguration(home) || !StartLogger()) {
    return VYN_ERR_GENERIC;
  }
  vyn::common::RpcSetter::DefaultSetting(g_broadcastConf);
  if (!SetTlsLibraries()) {
    return VYN_ERR_GENERIC;
  }
  if (Failed(InitServerClientAndLeader(flag))) {
    return VYN_ERR_GENERIC;
  }
  g_broadcastCache = new (std::nothrow) BroadcastSdkCache();
  VYN_CHECK_POINTER(g_broadcastCache);
  if (const unsigned int status = ConnectMetadataClient(flag); Failed(status)) {
    return status;
  }
  if (flag == kDriverFlag && Failed(CheckMfNode())) {
    return VYN_ERR_BC_MF_NODE;
  }
  if (Failed(BmInitialize(home.c_str(), static_cast<int>(g_mfClientFlag)))) {
    return VYN_ERR_BM_UNAVAILABLE;
  }
  return VYN_OK;
}

}  // namespace

unsigned int BroadcastInitialize(const char* vynHome, const char* vynVersion, const char* vynBinaryType,
                                 unsigned int flag) try {
  VYN_CHECK_POINTER(vynHome);
  VYN_CHECK_POINTER(vynVersion);
  VYN_CHECK_POINTER(vynBinaryType);
  std::string realPath;
  VYN_CHECK_CALL(FileUtil::RealPath(vynHome, realPath));
  if (Failed(BaseApiUtil::SetVynEnv(realPath.c_str(), vynVersion, vynBinaryType))) {
    FreeInitClaim();
    return VYN_ERR_GENERIC;
  }
  // When an initialisation fails, the waiting threads return its status. If they tried again, each in turn
  // would wait for ZooKeeper for a whole time-out.
  unsigned int status = VYN_OK;
  switch (g_startUp.Take(ClaimOnce::kNoLimit, &status)) {
    case ClaimOnce::Result::kFailed:
      return VYN_FAIL(status, "The initialisation that another thread ran has failed");
    case ClaimOnce::Result::kUp:
    case ClaimOnce::Result::kTimedOut:
      return status;
    case ClaimOnce::Result::kClaimed:
      break;
  }
  g_initClaim.store(1, std::memory_order_release);
  try {
    status = StartUp(realPath, flag);
  } catch (...) {
    status = StatusOfException("BroadcastInitialize");
  }
  if (Failed(status)) {
    g_initClaim.store(0, std::memory_order_release);
    g_startUp.Fail(status);
    return status;
  }
  g_initInProgress.store(0, std::memory_order_release);
  g_uninitClaim.store(0, std::memory_order_release);
  g_startUp.Succeed();
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int BroadcastUninitialize() try {
  if (g_uninitClaim.exchange(1, std::memory_order_acq_rel) != 0) {
    return VYN_OK;
  }
  BmUninitialize();
  if (g_broadcastCache != nullptr) {
    g_broadcastCache->CleanTable();
  }
  FreeInitClaim();
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int CheckMfNode() try {
  if (g_broadcastConf == nullptr) {
    return VYN_ERR_GENERIC;
  }
  std::set<std::string> nodeIpSet;
  VYN_CHECK_CALL(GetNodeIPSet(nodeIpSet));
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "Failed to get meta rpc cli as " << LastErrorText());
  }
  auto request = NewMessage<BroadcastRemoteNodeReq>();
  VYN_CHECK_POINTER(request);
  request->candidateNodes.assign(nodeIpSet.begin(), nodeIpSet.end());
  auto response = NewMessage<NodeIdResponse>();
  VYN_CHECK_POINTER(response);
  const unsigned int status = g_ShuffleMetaRPCEngine->IsMfNode(request, response);
  if (Failed(status)) {
    static_cast<void>(VYN_FAIL(status, "Failed to judge whether this node is a MF node or not."));
    return VYN_ERR_BC_META_CLIENT;
  }
  if (response->isMfNode) {
    g_mfNodeId = response->nodeId;
    g_mfClientFlag = 0;
  } else {
    g_mfClientFlag = 1;
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}
