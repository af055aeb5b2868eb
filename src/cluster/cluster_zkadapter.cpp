#include "cluster/cluster_zkadapter.h"

#include "cluster/zk_session.h"
#include "common/config/configuration.h"
#include "common/config/env_helper.h"
#include "common/log/log.h"
#include "common/util/file_util.h"
#include "platform/sync/mutex.h"

#include <pthread.h>
#include <unistd.h>

#include <new>
#include <stdexcept>

namespace vyn::cluster {

using common::Configuration;

std::atomic<zhandle_t*> g_ZKHandler{nullptr};

// mInstance comes last, so it is destroyed first: the adapter's destructor ends the session and uses the
// others.
sync::Mutex ClusterZKAdapter::mInstanceLock;
sync::RecursiveMutex ClusterZKAdapter::mZKHandleLock;
std::atomic<bool> ClusterZKAdapter::isRunning{true};
const std::string& ClusterZKAdapter::mMetaPath = *new std::string("/meta");
const std::string& ClusterZKAdapter::mMetaElectionPath = *new std::string("/meta/election");
const std::string& ClusterZKAdapter::mMetaLeaderPath = *new std::string("/meta/election/leader_info");
const std::string& ClusterZKAdapter::mMetaFollowerPath = *new std::string("/meta/election/follower_info");
const std::string& ClusterZKAdapter::mMetaStatusPath = *new std::string("/meta/status");
const std::string& ClusterZKAdapter::mMetaMutexPath = *new std::string("/meta/mutex");
Ref<ClusterZKAdapter> ClusterZKAdapter::mInstance;

namespace {

/// A forked child has no session. The locks may have been held by threads that only its parent has.
[[maybe_unused]] const int gAtFork = ::pthread_atfork(nullptr, nullptr, [] {
  new (&ClusterZKAdapter::mInstanceLock) sync::Mutex;
  new (&ClusterZKAdapter::mZKHandleLock) sync::RecursiveMutex;
  g_ZKHandler = nullptr;
});

}  // namespace

void Audit(const char* operation, bool success) {
  common::AuditGlog(std::to_string(getpid()).c_str(), operation, "zookeeper", success ? "SUCCESS" : "FAILED");
}

bool WatcherMayRun() {
  if (g_ZKHandler == nullptr) {
    VYN_LOG_INFO("Unexpected nullptr value for g_ZKHandler");
    return false;
  }
  return ClusterZKAdapter::isRunning;
}

bool ParseStatus(const std::string& text, int& status) {
  try {
    status = std::stoi(text);
    return true;
  } catch (const std::logic_error&) {
    return false;
  }
}

ClusterZKAdapter::ClusterZKAdapter(NodeRole role) : mRole(role) {}

ClusterZKAdapter::~ClusterZKAdapter() {
  if (g_ZKHandler != nullptr) {
    ClusterZKClose();
  }
}

Ref<ClusterZKAdapter> ClusterZKAdapter::GetInstance(NodeRole role) {
  sync::MutexLock lock(mInstanceLock);
  if (mInstance == nullptr) {
    mInstance = new (std::nothrow) ClusterZKAdapter(role);
    if (mInstance == nullptr) {
      VYN_LOG_ERROR("Unexpected nullptr value for mInstance");
    }
  }
  return mInstance;
}

std::uint32_t ClusterZKAdapter::ClusterZKAdapterInit(int sessionTimeout) {
  if (mRole > NODE_ROLE_SERVER) {
    VYN_LOG_ERROR("Node role error." << mRole);
    return VYN_ERR_GENERIC;
  }
  sync::RecursiveMutexLock lock(mZKHandleLock);
  if (g_ZKHandler != nullptr) {
    return VYN_OK;
  }
  DoDlZooSetDebugLevel(1);
  mConf = Configuration::GetInstance();
  VYN_CHECK_POINTER(mConf);

  const bool sdk = mRole == NODE_ROLE_SDK;
  const auto text = [this](const std::string& key) -> std::string { return mConf->GetString(key, ""); };
  const std::string zookeeperKey = sdk ? "vyn.zookeeper.sdk.security." : "vyn.zookeeper.security.";
  const std::string storeKey = sdk ? "vyn.tessel.sdk.plx.ksf." : "vyn.tessel.plx.ksf.";
  const std::string url = text("vyn.zookeeper.server.url");
  const std::string principleName = text("vyn.zookeeper.security.principle.name");
  const std::string principleHostname = text("vyn.zookeeper.security.principle.hostname");
  const std::string strategy = text("vyn.zookeeper.security.strategy");
  const std::string certificates = text(zookeeperKey + "certs");
  const std::string clientPrincipal = text(zookeeperKey + "client.principle");
  const std::string clientKeytab = text(zookeeperKey + "client.keytab");
  const std::string primaryKeyStore = text(storeKey + "primary.path");
  const std::string standbyKeyStore = text(storeKey + "standby.path");
  const std::string backupKeyStore = text(storeKey + "backup.path");
  const VynZookeeperSecurity security{principleName.c_str(),
                                      principleHostname.c_str(),
                                      strategy.c_str(),
                                      certificates.c_str(),
                                      mConf->GetBool("vyn.zookeeper.security.enable", true),
                                      clientPrincipal.c_str(),
                                      clientKeytab.c_str()};
  const VynZookeeperKeys keys{primaryKeyStore.c_str(), standbyKeyStore.c_str(), backupKeyStore.c_str(),
                              mConf->GetInt("vyn.zookeeper.connect.timeout", 30),
                              mConf->GetBool("vyn.zookeeper.security.isKeytabEncrypt", true)};

  const std::string libraryDirectory = GetVynLibPath();
  if (libraryDirectory.empty()) {
    VYN_LOG_ERROR("Failed to get vyn lib path");
    return VYN_ERR_GENERIC;
  }
  if (VynZookeeperInit(url.c_str(), sessionTimeout, &security, &keys, libraryDirectory.c_str()) < 0) {
    VYN_LOG_ERROR("Failed to connect to zookeeper server, " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  g_ZKHandler = VynGetZkHandle();
  if (g_ZKHandler == nullptr) {
    VYN_LOG_ERROR("zookeeper init failed");
    Audit("connect", false);
    return VYN_ERR_GENERIC;
  }
  Audit("connect", true);
  VYN_LOG_INFO("Successfully init zookeeper client, session timeout is: " << sessionTimeout);
  return VYN_OK;
}

std::string ClusterZKAdapter::GetVynLibPath() {
  const Ref<common::EnvHelper> env = common::EnvHelper::GetInstance();
  if (env == nullptr) {
    return "";
  }
  const std::string path =
      env->GetHome() + "/tessel/" + env->GetVersion() + "/" + env->GetBinaryType() + "/lib/common/";
  std::string realPath;
  return Failed(common::FileUtil::RealPath(path, realPath)) ? "" : realPath;
}

std::uint32_t ClusterZKAdapter::ClusterZKMakeDir() const {
  struct Step {
    const std::string& path;
    const char* operation;
    const char* failure;
  };
  const Step steps[] = {
      {mMetaPath, "mkdir_meta", "Create /meta failed, ret: "},
      {mMetaElectionPath, "mkdir_election", "Create /meta/election failed, ret: "},
      {mMetaFollowerPath, "create_follower_path", "Create follower_info failed, ret: "},
  };
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  for (const Step& step : steps) {
    const int result =
        DoDlZooCreate(g_ZKHandler, step.path.c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
    if (result != ZOK && result != ZNODEEXISTS) {
      Audit(step.operation, false);
      VYN_LOG_ERROR(step.failure << VynZookeeperGetLastMessage());
      return VYN_ERR_GENERIC;
    }
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ClusterZKCheckAvailable() const {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  const int result = DoDlZooExists(g_ZKHandler, mRootPath.c_str(), -1, nullptr);
  switch (result) {
    case ZOK:
      return VYN_OK;
    case ZCONNECTIONLOSS:
      VYN_LOG_ERROR("Connection loss for ZK server, ret is: " << result
                                                              << ", try again to connect to server");
      return VYN_ERR_ZK_CONNECTION_LOSS;
    case ZOPERATIONTIMEOUT:
      VYN_LOG_ERROR("Unconnected to ZK server, ret is: " << result << ", try again to connect to server");
      return VYN_ERR_ZK_UNCONNECTED;
    case ZSSLCONNECTIONERROR:
      VYN_LOG_ERROR("SSL connection error to ZK server, ret is: " << result
                                                                  << ", try again to connect to server");
      return VYN_ERR_ZK_SSL;
    case ZINVALIDSTATE:
      VYN_LOG_ERROR("Failed to connect to ZK server, client session expired, ret is: "
                    << result << ", try to recreate the ZK client");
      return VYN_ERR_ZK_SESSION_EXPIRED;
    case ZBADARGUMENTS:
      VYN_LOG_ERROR("Failed to connect to ZK server, client session expired with process in D state, ret is: "
                    << result << ", try to recreate the ZK client");
      return VYN_ERR_ZK_SESSION_EXPIRED;
    default:
      VYN_LOG_ERROR("Other error in check ZK Cluster available, ret is: " << result
                                                                          << VynZookeeperGetLastMessage());
      return VYN_ERR_ZK_OTHER;
  }
}

bool ClusterZKAdapter::SessionHasEnded() const {
  zhandle_t* handle = g_ZKHandler;
  return handle != nullptr && DoDlZooRecvTimeout(handle) == 0;
}

std::uint32_t ClusterZKAdapter::ClusterZKClose() const {
  zhandle_t* tempHandler = nullptr;
  {
    sync::RecursiveMutexLock lock(mZKHandleLock);
    VYN_CHECK_SESSION();
    VynRemoveZkHandle();
    tempHandler = g_ZKHandler.exchange(nullptr);
  }
  // Without the lock: closing waits for a running watcher, and that watcher may be waiting for mZKHandleLock.
  VYN_CHECK_POINTER(tempHandler);
  if (DoDlZookeeperClose(tempHandler) != ZOK) {
    VYN_LOG_ERROR("Failed to close zookeeper client, " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  VYN_LOG_INFO("Cluster Adapter close ZK Client successfully");
  return VYN_OK;
}

}  // namespace vyn::cluster
