#include "tessel/rpc/server_rpc_engine_pool.h"

#include "common/log/logging.h"

#include <utility>

namespace vyn::tessel {

ServerRPCEnginePool::ServerRPCEnginePool(const common::RPCEngineParam& param, bool clientIdentity,
                                         std::uint16_t poolSize,
                                         std::map<std::string, const std::string> securityConf)
    : RPCEnginePool(param.mIp, param.mPort, param.mTimeout, clientIdentity, poolSize, 0,
                    std::move(securityConf), param.mTlsEnable, param.mAuthEnable) {}

unsigned int ServerRPCEnginePool::NewRPCEngine(common::Ref<common::RpcEngine>& engine) {
  const unsigned int status = ConnectEngine(engine, {}, mConnectTimeout);
  if (status == VYN_ERR_NULL_POINTER) {
    return status;
  }
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to initialize server rpc engine.");
  } else {
    VYN_LOG_INFO("Connected to Shuffle Server rpc server<"
                 << engine->mIp << ":" << static_cast<std::uint16_t>(engine->mPort) << "> successfully. ");
  }
  return status;
}

unsigned int ServerRPCEnginePool::Initialize() {
  VYN_LOG_INFO("InitShuffleRpc num:" << mPoolSize);
  return FillPool();
}

}  // namespace vyn::tessel
