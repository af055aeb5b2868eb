#pragma once

// The pool of connections to the metadata service. Threads: as for RPCEnginePool.

#include "cluster/leader/leader_rpc_engine_pool.h"

namespace vyn::tessel {

class MetaRPCEnginePool : public cluster::LeaderRPCEnginePool {
 public:
  using LeaderRPCEnginePool::LeaderRPCEnginePool;
  ~MetaRPCEnginePool() override = default;
};

}  // namespace vyn::tessel
