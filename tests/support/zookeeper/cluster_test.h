#pragma once

// The base of tests that use the ZooKeeper adapter of this process against a real server: a staged home, a
// configuration that names the server, a session with a root of the test's own, and the log and audit lines.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"
#include "common/config/configuration.h"
#include "platform/ulog/ulog.h"
#include "support/captured_log.h"
#include "support/process/installation.h"
#include "support/zookeeper/zookeeper_server.h"

namespace vyn::test {

// Levels of CapturedLog.
inline constexpr int kWarnLine = 3;
inline constexpr int kErrorLine = 4;

class ClusterTest : public testing::Test {
 protected:
  static void SetUpTestSuite() { gServer = std::make_unique<ZookeeperServer>(); }
  static void TearDownTestSuite() { gServer.reset(); }

  ClusterTest() {
    const Installation& home = Installation::Get();
    home.Write("tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common/empty", "");
    common::Configuration::InitInstance(home.Write(
        "conf/vyn.conf", "vyn.zookeeper.security.enable=false\nvyn.zookeeper.connect.timeout=60\n"));
    ULOG_AuditInit((mFolder / "audit.log").c_str(), 1, 1);
  }
  void SetUp() override { Connect(mUrl); }
  void TearDown() override {
    Disconnect();
    common::MetaNodeInfo::metaInstance = nullptr;
  }

  void Disconnect() {
    if (cluster::g_ZKHandler != nullptr) {
      mAdapter->ClusterZKClose();
    }
  }
  /// Connects anew and makes the tree.
  void Connect(const std::string& url, int sessionTimeout = 30000) {
    Disconnect();
    common::Configuration::GetInstance()->Set("vyn.zookeeper.server.url", url);
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
  static inline std::unique_ptr<ZookeeperServer> gServer;
  TempDir mFolder;
  CapturedLog mLog;
  const std::string mUrl = gServer->NewRoot();
  common::Ref<cluster::ClusterZKAdapter> mAdapter =
      cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  common::Ref<common::MetaNodeInfo> mMeta = common::MetaNodeInfo::GetInstance();
  std::unique_ptr<RawZookeeper> mRaw;
};

}  // namespace vyn::test
