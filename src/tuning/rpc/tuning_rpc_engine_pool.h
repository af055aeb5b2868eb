#pragma once

// Connections to the tuning service, which runs beside the metadata leader.

#include "cluster/leader_rpc_engine_pool.h"

namespace vyn::tuning {

class TuningRPCEnginePool : public cluster::LeaderRPCEnginePool {
 public:
  using LeaderRPCEnginePool::LeaderRPCEnginePool;
  ~TuningRPCEnginePool() override = default;
};

}  // namespace vyn::tuning
