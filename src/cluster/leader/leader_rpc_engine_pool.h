#pragma once

// The pool of connections of a client whose service runs on the elected leader (metadata, tuning).
//
// Threads: as for RPCEnginePool. The member that this class adds never changes.

#include "common/rpc/rpc_engine_base.h"
#include "common/rpc/rpc_engine_pool.h"

#include <cstdint>
#include <map>
#include <string>

namespace vyn::cluster {

using SecurityConf = std::map<std::string, const std::string>;

class LeaderRPCEnginePool : public common::RPCEnginePool {
 public:
  LeaderRPCEnginePool(const common::RPCEngineParam& param, std::uint16_t poolSize, std::uint16_t groupIndex,
                      SecurityConf securityConf);
  ~LeaderRPCEnginePool() override = default;

  unsigned int NewRPCEngine(common::Ref<common::RpcEngine>& engine) override;
  unsigned int Initialize() override;
  unsigned int SetTimeout() override { return 0; }

 private:
  const std::map<std::string, std::string> mClientOptions;  ///< passed to each engine
};

}  // namespace vyn::cluster
