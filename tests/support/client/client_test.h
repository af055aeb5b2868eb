#pragma once

// The ground of the clients' tests: the process's configuration, and where the clients look for the metadata
// leader.

#include "cluster/meta_node_info.h"
#include "common/config/configuration.h"
#include "support/captured_log.h"
#include "support/client/scripted_service.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

namespace vyn::test {

/// Returns: the process's configuration, loaded from a file at the first use, without TLS and authentication.
inline common::Ref<common::Configuration> PlainConfiguration() {
  static const TempDir folder;
  return common::Configuration::GetInstance(folder.Write(
      "vyn.conf", "vyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"));
}

}  // namespace vyn::test

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
