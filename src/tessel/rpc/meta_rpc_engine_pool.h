#pragma once

// Connections to the metadata leader.

#include "cluster/leader_rpc_engine_pool.h"

namespace vyn::tessel {

class MetaRPCEnginePool : public cluster::LeaderRPCEnginePool {
 public:
  using LeaderRPCEnginePool::LeaderRPCEnginePool;
  ~MetaRPCEnginePool() override = default;
};

}  // namespace vyn::tessel
