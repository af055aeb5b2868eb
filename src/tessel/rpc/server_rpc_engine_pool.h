#pragma once

// Connections to the server daemon of this host.

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
  /// Milliseconds; becomes the process's default for calls that give no time-out of their own.
  const std::int64_t mConnectTimeout = 5000;
};

}  // namespace vyn::tessel
