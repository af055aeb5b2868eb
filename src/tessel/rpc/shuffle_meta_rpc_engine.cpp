// The instance, the leader and the pool of the metadata client.

#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include "common/api/base_api_util.h"
#include "common/log/logging.h"
#include "common/rpc/client_forms.h"
#include "platform/sync/mutex.h"
#include "tessel/rpc/meta_rpc_engine_pool.h"

#include <new>
#include <system_error>

namespace vyn::tessel {

Ref<ShuffleMetaRPCEngine>& ShuffleMetaRPCEngine::gShuffleMetaRPCEngine = *new Ref<ShuffleMetaRPCEngine>;

namespace {

/// Held while gShuffleMetaRPCEngine is read or written here. The member is promised and public, so no class
/// can name this mutex as its guard, and clang does not check it.
sync::Mutex gInstanceMutex;

constexpr cluster::LeaderService kMetadataService{
    .name = "shuffle meta service",
    .portKey = "vyn.tessel.rpc.shuffle_meta.port",
    .defaultPort = 3891,
    .logsThread = true,
    .newPool = &cluster::NewLeaderPool<MetaRPCEnginePool>,
    .connectFailed = [](std::uint32_t status) -> std::uint32_t {
      // The log has the pool's status; the caller gets this one.
      VYN_LOG_ERROR("Failed to initialize meta rpc client by meta rpc engine pool with error code "
                    << status);
      return VYN_ERR_META_POOL_INIT;
    },
};

}  // namespace

ShuffleMetaRPCEngine::ShuffleMetaRPCEngine(long timeout, bool isSdk,
                                           const Ref<ShuffleServerRPCEngine>& serverEngine)
    : LeaderRPCEngine(kMetadataService, timeout, isSdk, 0), mServerEngine(serverEngine) {}

Ref<ShuffleMetaRPCEngine> ShuffleMetaRPCEngine::CreateInstance(long timeout, bool isSdk,
                                                               Ref<ShuffleServerRPCEngine> serverEngine) {
  const Ref<ShuffleMetaRPCEngine> made(new (std::nothrow) ShuffleMetaRPCEngine(timeout, isSdk, serverEngine));
  return cluster::PublishClient(made, gShuffleMetaRPCEngine, gInstanceMutex, "ShuffleMetaRPCEngine");
}

Ref<ShuffleMetaRPCEngine> ShuffleMetaRPCEngine::GetInstance() {
  sync::MutexLock lock(gInstanceMutex);
  return gShuffleMetaRPCEngine;
}

std::uint32_t ShuffleMetaRPCEngine::Initialize() {
  if (const std::uint32_t status = LoadDependencies(); Failed(status)) {
    return status;
  }
  if (const std::uint32_t status = ShuffleMetaLeaderInfoGet(); Failed(status)) {
    VYN_LOG_ERROR("Failed to get leader info from server in retry time: " << 0);
    return status;
  }
  try {
    mFollow.Start({.failure = "Following the metadata leader", .period = kFollowPeriod, .realTime = true},
                  [this] { EndCallsToOldLeader([this] { static_cast<void>(ShuffleMetaLeaderInfoGet()); }); });
  } catch (const std::system_error& failure) {
    VYN_LOG_WARN("Calls to a leader that stands still wait for their whole limit: " << failure.what());
  }
  return ConnectToLeader();
}

std::uint32_t ShuffleMetaRPCEngine::ShuffleMetaLeaderInfoGet() {
  {
    sync::MutexLock lock(mServerEngineMutex);
    if (mServerEngine == nullptr) {
      return VYN_OK;
    }
  }
  const Ref<MetaLeaderInformation> request(new (std::nothrow) MetaLeaderInformation("meta"));
  VYN_CHECK_POINTER(request);
  Ref<MetaLeaderInformation> response(new (std::nothrow) MetaLeaderInformation);
  VYN_CHECK_POINTER(response);
  const auto server = ShuffleServerRPCEngine::GetInstance(mIsSdk);
  if (server == nullptr) {
    VYN_LOG_ERROR("Get ShuffleServerRPCEnginePtr nullptr");
    return VYN_ERR_SERVER_CLIENT;
  }
  {
    sync::MutexLock lock(mServerEngineMutex);
    mServerEngine = server;
  }
  if (const std::uint32_t status = server->GetMetaLeaderInfo(request, response); Failed(status)) {
    VYN_LOG_ERROR("Meta engine Failed to get Meta leader info");
    return status;
  }
  const auto metaNode = common::MetaNodeInfo::GetInstance();
  VYN_CHECK_POINTER(metaNode);
  {
    sync::WriterLock lock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = response->metaLeaderInfo;
  }
  VYN_LOG_INFO("Get meta leader ip from shuffle server success, ip port: " << response->metaLeaderInfo);
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                                     const Ref<common::BaseMessage>& response,
                                                     std::chrono::milliseconds limit,
                                                     common::ExpectedRefusals expected) {
  const auto askForLeader = [this](std::uint32_t hr) {
    if (Failed(ShuffleMetaLeaderInfoGet())) {
      VYN_LOG_ERROR("Failed to get meta leader information, hr is: " << hr);
    }
  };
  return SendWithRetry(opcode, request, response, askForLeader, limit, expected);
}

std::uint32_t ShuffleMetaRPCEngine::Call(short opcode, const Ref<common::BaseMessage>& request,
                                         const Ref<common::BaseMessage>& response, const char* failure) {
  const std::uint32_t status = SendAndWaitReply(opcode, request, response);
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, failure << status);
  return VYN_OK;
}

void ShuffleMetaRPCEngine::GetSecurityConf(std::map<std::string, const std::string>& conf,
                                           const std::string& metaHostname) {
  common::BaseApiUtil::GetSecurityConf4Client(conf, metaHostname, mIsSdk);
}

}  // namespace vyn::tessel
