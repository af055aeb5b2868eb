// The instance, the settings and the pool of the node-server client.

#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include "common/api/base_api_util.h"
#include "common/log/logging.h"
#include "common/util/system.h"
#include "platform/sync/mutex.h"
#include "tessel/rpc/server_rpc_engine_pool.h"

#include <new>
#include <utility>

namespace vyn::tessel {

using common::Configuration;

Ref<ShuffleServerRPCEngine>& ShuffleServerRPCEngine::gShuffleServerRPCEngine =
    *new Ref<ShuffleServerRPCEngine>;
std::atomic<bool> ShuffleServerRPCEngine::mPoolMode{false};
std::atomic<bool> ShuffleServerRPCEngine::mIsSdk{false};
std::string& ShuffleServerRPCEngine::mShuffleServerIp = *new std::string;
std::int16_t ShuffleServerRPCEngine::mShuffleServerPort = 0;
std::int64_t ShuffleServerRPCEngine::mRpcTimeout = 5000;
std::int64_t ShuffleServerRPCEngine::mLocalBlobGetTimeout = 15000;
std::int64_t ShuffleServerRPCEngine::mLocalBlobCommitTimeout = 15000;
std::int64_t ShuffleServerRPCEngine::mBroadcastVarCreateTimeout = 600000;
std::int64_t ShuffleServerRPCEngine::mBroadcastVarFetchTimeout = 600000;
std::uint64_t ShuffleServerRPCEngine::maxBlobSize = 20971520;

namespace {

/// Held while gShuffleServerRPCEngine is read or written here. The member is promised and public, so no class
/// can name this mutex as its guard, and clang does not check it.
sync::Mutex gServerInstanceMutex;

Ref<ShuffleServerRPCEngine> MakeInstance() VYN_REQUIRES(gServerInstanceMutex) {
  Ref<ShuffleServerRPCEngine> made(new (std::nothrow) ShuffleServerRPCEngine);
  if (made == nullptr) {
    VYN_LOG_ERROR("Failed to new instance for \"ShuffleServerRPCEngine\"");
    return nullptr;
  }
  ShuffleServerRPCEngine::gShuffleServerRPCEngine = made;
  return made;
}

}  // namespace

Ref<ShuffleServerRPCEngine> ShuffleServerRPCEngine::CreateInstance() {
  sync::MutexLock lock(gServerInstanceMutex);
  return MakeInstance();
}

Ref<ShuffleServerRPCEngine> ShuffleServerRPCEngine::GetInstance(bool isSdk) {
  if (mPoolMode && mIsSdk != isSdk) {
    VYN_LOG_ERROR("Failed to get shuffle rpc cli, request sdk: " << isSdk << ", but really sdk:" << mIsSdk);
    return nullptr;
  }
  sync::MutexLock lock(gServerInstanceMutex);
  return gShuffleServerRPCEngine != nullptr ? gShuffleServerRPCEngine : MakeInstance();
}

std::uint32_t ShuffleServerRPCEngine::Initialize(int connectionCount, bool isSdk) {
  const auto gConfig = Configuration::GetInstance();
  VYN_CHECK_POINTER(gConfig);
  mShuffleServerIp = "127.0.0.1";
  mShuffleServerPort = static_cast<std::int16_t>(gConfig->GetInt("vyn.tessel.rpc.shuffle_server.port", 3891));
  mRpcTimeout = gConfig->GetLong("vyn.tessel.rpc.shuffle_server.timeout", 0);
  mLocalBlobGetTimeout = gConfig->GetLong("vyn.tessel.rpc.local_blob.get.timeout", 15000);
  mLocalBlobCommitTimeout = gConfig->GetLong("vyn.tessel.rpc.local_blob.commit.timeout", 15000);
  mBroadcastVarCreateTimeout = gConfig->GetLong("vyn.tessel.broadcast.variable.create.timeout", 600000);
  mBroadcastVarFetchTimeout = gConfig->GetLong("vyn.tessel.broadcast.variable.fetch.timeout", 600000);

  std::map<std::string, const std::string> conf;
  GetSecurityConf(conf, isSdk);
  mConnectionCount = static_cast<std::uint16_t>(connectionCount);
  mIsSdk = isSdk;  // before mPoolMode: GetInstance reads mIsSdk once mPoolMode is set
  mPoolMode = true;

  const auto port = static_cast<std::uint16_t>(mShuffleServerPort);
  const Ref<common::RPCEngineParam> param(new (std::nothrow) common::RPCEngineParam(
      mRpcTimeout, mShuffleServerIp, port, mTlsEnable, mAuthEnable));
  VYN_CHECK_POINTER_NAMED(param, "mParam");
  const Ref<common::RPCEnginePool> pool(
      new (std::nothrow) ServerRPCEnginePool(*param, isSdk, mConnectionCount, std::move(conf)));
  VYN_CHECK_POINTER_NAMED(pool, "mEnginePool");
  SetEnginePool(pool, param);
  const std::uint32_t status = pool->Initialize();
  if (Failed(status)) {
    VYN_LOG_ERROR("shuffle server rpc client init error");
    return status;
  }
  VYN_LOG_INFO("Connected to shuffle server rpc server(addr:" << mShuffleServerIp << ", port:" << port
                                                              << ") successfully.");
  return VYN_OK;
}

void ShuffleServerRPCEngine::GetSecurityConf(std::map<std::string, const std::string>& conf, bool isSdk) {
  mConf = Configuration::GetInstance();
  if (mConf == nullptr) {
    VYN_LOG_ERROR("Unexpected nullptr value mConf");
    return;
  }
  mTlsEnable = mConf->GetBool("vyn.tessel.rpc.enableTLS", true);
  mAuthEnable = mConf->GetBool("vyn.tessel.rpc.enableAuthentication", true);
  // A service, too, uses the client's credentials towards the node server of its host. GetSecurityConf4Client
  // keeps existing entries, so these two replace the service's own.
  const std::string hostname = common::VynGetHostname();
  conf.emplace("auth.kerb.keytab", mConf->GetString("vyn.tessel.rpc.auth.kerb.client.keytab", ""));
  conf.emplace("auth.kerb.client.principal",
               mConf->GetString("vyn.tessel.rpc.auth.client.principle.name", "") + "/" + hostname + "@" +
                   mConf->GetString("vyn.tessel.rpc.auth.domain", ""));
  common::BaseApiUtil::GetSecurityConf4Client(conf, hostname, isSdk);
}

}  // namespace vyn::tessel
