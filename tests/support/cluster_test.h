#pragma once

// The base of tests that use the ZooKeeper adapter of this process against a real server: a staged home, a
// configuration that names the server, a root of the test's own, and the log and audit lines.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"
#include "common/config/configuration.h"
#include "platform/ulog/ulog.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/zookeeper_server.h"

#include <stdlib.h>

namespace vyn::test {

// Levels of CapturedLog.
inline constexpr int kInfoLine = 2;
inline constexpr int kWarnLine = 3;
inline constexpr int kErrorLine = 4;

/// Stages a home, once a process, and makes a configuration there that names `url`.
inline void UseZookeeper(const std::string& url) {
  static const TempDir home;
  static const bool staged = [] {
    home.Write("tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common/empty", "");
    setenv("VYN_HOME", home.Path().c_str(), 1);
    setenv("VYN_VERSION", "24.0.0", 1);
    setenv("VYN_BINARY_TYPE", VYN_BINARY_TYPE, 1);
    common::Configuration::InitInstance(home.Write(
        "conf/vyn.conf", "vyn.zookeeper.security.enable=false\nvyn.zookeeper.connect.timeout=60\n"));
    return true;
  }();
  (void)staged;
  common::Configuration::GetInstance()->Set("vyn.zookeeper.server.url", url);
}

class ClusterTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  void SetUp() override {
    mUrl = gServer->NewRoot();
    UseZookeeper(mUrl);
    ASSERT_EQ(ULOG_AuditInit((mFolder / "audit.log").c_str(), 1, 1), 0);
    mMeta->mMetaNodeRole = common::MetaNodeRole::LOOKING;
    mMeta->mLeaderAddress.clear();
    mMeta->mNodeAddress.clear();
    mMeta->mNodeStatusMap.clear();
  }
  void TearDown() override {
    if (cluster::g_ZKHandler != nullptr) {
      mAdapter->ClusterZKClose();
    }
  }

  /// Connects and makes the tree.
  void Connect(int sessionTimeout = 30000) {
    ASSERT_EQ(mAdapter->ClusterZKAdapterInit(sessionTimeout), 0U);
    ASSERT_EQ(mAdapter->ClusterZKMakeDir(), 0U);
    mRaw = std::make_unique<RawZookeeper>(mUrl);
  }
  std::string LeaderAddress() {
    std::shared_lock lock(mMeta->mLeaderLock);
    return mMeta->mLeaderAddress;
  }
  std::map<std::string, cluster::MetaNodeStatus> StatusMap() {
    std::shared_lock lock(mMeta->mNodeStatusLock);
    return mMeta->mNodeStatusMap;
  }
  /// Whether the audit log has a line of this process with this operation and result.
  bool Audited(const std::string& operation, bool success) const {
    return ReadFile(mFolder / "audit.log")
               .find("[" + std::to_string(getpid()) + "][" + operation + "][zookeeper][" +
                     (success ? "SUCCESS]" : "FAILED]")) != std::string::npos;
  }

  static inline std::unique_ptr<ZookeeperServer> gServer;
  TempDir mFolder;
  CapturedLog mLog;
  std::string mUrl;
  common::Ref<cluster::ClusterZKAdapter> mAdapter =
      cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  common::Ref<common::MetaNodeInfo> mMeta = common::MetaNodeInfo::GetInstance();
  std::unique_ptr<RawZookeeper> mRaw;
};

}  // namespace vyn::test
