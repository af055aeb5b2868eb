#pragma once

// The pool of connections to the node server of this host. Threads: as for RPCEnginePool.

#include "common/rpc/rpc_engine_base.h"
#include "common/rpc/rpc_engine_pool.h"

#include <cstdint>
#include <map>
#include <string>

namespace vyn::tessel {

class ServerRPCEnginePool : public common::RPCEnginePool {
 public:
  ServerRPCEnginePool(const common::RPCEngineParam& param, bool clientIdentity, std::uint16_t poolSize,
                      std::map<std::string, const std::string> securityConf);
  ~ServerRPCEnginePool() override = default;

  unsigned int NewRPCEngine(common::Ref<common::RpcEngine>& engine) override;
  unsigned int Initialize() override;
  unsigned int SetTimeout() override { return 0; }

 private:
  /// Milliseconds. Connecting makes it RpcEngine::mTimeout, the time limit of calls without a limit of their
  /// own.
  const std::int64_t mConnectTimeout = 5000;
};

}  // namespace vyn::tessel
