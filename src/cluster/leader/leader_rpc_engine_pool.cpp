#include "cluster/leader/leader_rpc_engine_pool.h"

#include "common/log/logging.h"

#include <utility>

namespace vyn::cluster {

LeaderRPCEnginePool::LeaderRPCEnginePool(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                         std::uint16_t groupIndex, SecurityConf securityConf)
    : RPCEnginePool(param.mIp, param.mPort, param.mTimeout, true, poolSize, groupIndex,
                    std::move(securityConf), param.mTlsEnable, param.mAuthEnable),
      mClientOptions{{"peer.worker.group.index", std::to_string(groupIndex)}} {}

unsigned int LeaderRPCEnginePool::NewRPCEngine(common::Ref<common::RpcEngine>& engine) {
  const unsigned int status = ConnectEngine(engine, mClientOptions, mTimeout);
  if (status == VYN_ERR_NULL_POINTER) {
    return status;
  }
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to initialize meta rpc engine.");
  } else {
    VYN_LOG_INFO("Connected to meta rpc server<"
                 << engine->mIp << ":" << static_cast<std::uint16_t>(engine->mPort) << "> successfully.");
  }
  return status;
}

unsigned int LeaderRPCEnginePool::Initialize() { return FillPool(); }

}  // namespace vyn::cluster
