// The leader record: reading the leader znode, and the watch that follows it.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"
#include "common/log/exceptions.h"

namespace vyn::cluster {

namespace {

/// The most bytes that are read of the leader znode.
constexpr int kLeaderTextLength = 30;

std::uint32_t WatchStatus(int result) {
  switch (result) {
    case ZOPERATIONTIMEOUT:
      return VYN_ERR_ZK_UNCONNECTED;
    case ZCONNECTIONLOSS:
      return VYN_ERR_ZK_CONNECTION_LOSS;
    case ZINVALIDSTATE:
      return VYN_ERR_ZK_SESSION_EXPIRED;
    default:
      return VYN_ERR_ZK_OTHER;
  }
}

}  // namespace

std::uint32_t ClusterZKAdapter::ZKGetAndUpdateMetaLeaderInfo(const Ref<MetaNodeInfo>& metaNode) {
  VYN_CHECK_POINTER(metaNode);
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  char buffer[kLeaderTextLength];
  int length = kLeaderTextLength;
  Stat stat{};
  const int result =
      DoDlZooWget(g_ZKHandler, mMetaLeaderPath.c_str(), nullptr, nullptr, buffer, &length, &stat);
  if (result != ZOK) {
    Audit("get_leader_info", false);
    VYN_LOG_ERROR("Failed to get cur meta leader info, ret: " << result << ", " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  std::string leader = ValueText(buffer, length);
  if (stat.dataLength > kLeaderTextLength) {
    VYN_LOG_WARN("Leader info of " << stat.dataLength << " bytes is cut to " << kLeaderTextLength
                                   << " bytes: " << leader);
  }
  {
    sync::WriterLock leaderLock(metaNode->mLeaderLock);
    metaNode->mLeaderAddress = leader;
  }
  VYN_LOG_INFO("Get and update leader info from ZK Server to memory, leader ip: " << leader);
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKRegisterWatcher(bool leaderOnly) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  int result =
      DoDlZooWexists(g_ZKHandler, mMetaLeaderPath.c_str(), MetaNodeLeaderWatchFunc, nullptr, nullptr);
  if (result != ZOK) {
    Audit("set_leader_watcher", false);
    VYN_LOG_ERROR("Check meta node exists failed, ret: " << result << ", " << VYN_ZK_ERROR);
    return WatchStatus(result);
  }
  // The leader may have changed between the caller's read and the setting of the watch. A failure of this
  // read does not matter: if the leader has gone, the watch reports it.
  ZKGetAndUpdateMetaLeaderInfo(MetaNodeInfo::GetInstance());
  if (leaderOnly) {
    return VYN_OK;
  }
  result = DoDlZooWgetChildren(g_ZKHandler, mMetaFollowerPath.c_str(), MetaNodeFollowerWatchFunc, nullptr,
                               nullptr);
  if (result != ZOK) {
    Audit("set_follower_watcher", false);
    VYN_LOG_ERROR("Check meta node exists failed, ret: " << result << ", " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  Children children;
  const std::uint32_t listed = ZKGetAllStatusNode(children.mNames);
  if (Failed(listed)) {
    return listed;
  }
  for (int i = 0; i < children.mNames.count; ++i) {
    const std::string path = mMetaStatusPath + "/" + children.mNames.data[i];
    result = DoDlZooWexists(g_ZKHandler, path.c_str(), MetaNodeStatusWatchFunc, nullptr, nullptr);
    if (result != ZOK) {
      Audit("set_status_watcher", false);
      VYN_LOG_ERROR("Failed to clear node named: " << path << ", ret :" << result << ", " << VYN_ZK_ERROR);
    }
  }
  return VYN_OK;
}

void ClusterZKAdapter::MetaNodeLeaderWatchFunc(zhandle_t* zh, int type, int, const char* path, void*) try {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  if (!WatcherMayRun()) {
    return;
  }
  const int standing = DoDlZooWexists(zh, mMetaLeaderPath.c_str(), MetaNodeLeaderWatchFunc, nullptr, nullptr);
  if (type == ZOO_CREATED_EVENT) {
    VYN_LOG_INFO("MetaNodeLeaderWatcher: ZOO_CREATED_EVENT: " << type << ", path: " << path);
    ZKGetAndUpdateMetaLeaderInfo(MetaNodeInfo::GetInstance());
    return;
  }
  VYN_LOG_INFO("MetaNodeLeaderWatcher: OTHER EVENT: " << type << ", path: " << path);
  const int again =
      DoDlZooWexists(g_ZKHandler, mMetaLeaderPath.c_str(), MetaNodeLeaderWatchFunc, nullptr, nullptr);
  // A new leader may have come before the watch was set again. ZooKeeper then sends no created event.
  if (standing == ZOK || again == ZOK) {
    ZKGetAndUpdateMetaLeaderInfo(MetaNodeInfo::GetInstance());
  }
} catch (...) {
  static_cast<void>(common::StatusOfException(__func__));
}

}  // namespace vyn::cluster
