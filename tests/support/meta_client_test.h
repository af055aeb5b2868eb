#pragma once

// Where the clients look for the metadata leader.

#include "cluster/meta_node_info.h"
#include "support/client_test.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <mutex>
#include <string>

namespace vyn::tessel {

inline void SetLeader(const std::string& address) {
  const auto metaNode = common::MetaNodeInfo::GetInstance();
  std::unique_lock lock(metaNode->mLeaderLock);
  metaNode->mLeaderAddress = address;
}

inline std::string Leader() {
  const auto metaNode = common::MetaNodeInfo::GetInstance();
  std::shared_lock lock(metaNode->mLeaderLock);
  return metaNode->mLeaderAddress;
}

}  // namespace vyn::tessel
