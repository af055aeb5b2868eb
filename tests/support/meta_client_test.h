#pragma once

// The ground of the metadata client's tests: one service on 127.0.0.1 and a client as a driver has it.

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

class MetaClientTest : public testing::Test {
 protected:
  static constexpr long kTimeout = 8001;

  MetaClientTest() {
    mConf = test::PlainConfiguration();
    mConf->Set("vyn.tessel.rpc.shuffle_meta.port", int{mService.Port()});
    SetLeader("127.0.0.1");
    mClient = ShuffleMetaRPCEngine::CreateInstance(kTimeout, true, nullptr);
  }
  void SetUp() override { ASSERT_EQ(mClient->Initialize(), 0U); }

  Ref<common::Configuration> mConf;
  test::ScriptedService mService;
  Ref<ShuffleMetaRPCEngine> mClient;
};

}  // namespace vyn::tessel
