#pragma once

// The pool of connections to the tuning service. Threads: as for RPCEnginePool.

#include "cluster/leader/leader_rpc_engine_pool.h"

namespace vyn::tuning {

class TuningRPCEnginePool : public cluster::LeaderRPCEnginePool {
 public:
  using LeaderRPCEnginePool::LeaderRPCEnginePool;
  ~TuningRPCEnginePool() override = default;
};

}  // namespace vyn::tuning
