// The watchers of followers and statuses. They update MetaNodeInfo and mark vanished followers as broken.
//
// An event other than a change means that changes may have been missed: the watch was set late, or the
// connection was lost. So a watcher sets its watch again, which reads the present state, and acts on that
// state whatever the event was.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"
#include "common/log/exceptions.h"

namespace vyn::cluster {

namespace {

/// The most bytes that a watcher reads of a status.
constexpr int kWatchedStatusLength = 10;

}  // namespace

void ClusterZKAdapter::MetaNodeFollowerWatchFunc(zhandle_t* zh, int type, int, const char* path, void*) try {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  if (!WatcherMayRun()) {
    return;
  }
  Children children;
  const int result = DoDlZooWgetChildren(zh, mMetaFollowerPath.c_str(), MetaNodeFollowerWatchFunc, nullptr,
                                         &children.mNames);
  if (TooMany(children.mNames)) {
    VYN_LOG_INFO("Invalid nodes count from zookeeper for count is: " << children.mNames.count);
    return;
  }
  if (type != ZOO_CHILD_EVENT) {
    VYN_LOG_INFO("MetaNodeFollowerWatcher: OTHER EVENT: " << type << ", path: " << path);
    DoDlZooWgetChildren(zh, mMetaFollowerPath.c_str(), MetaNodeFollowerWatchFunc, nullptr, nullptr);
  } else {
    VYN_LOG_INFO("MetaNodeFollowerWatcher: ZOO_CHILD_EVENT, path: " << path << ", update follower status");
  }
  if (result != ZOK) {
    // We have no list. The call below would take it for an empty one and mark every follower as broken.
    VYN_LOG_INFO("Failed to get followers, ret: " << result << ", " << VYN_ZK_ERROR);
    return;
  }
  const Ref<MetaNodeInfo> metaNode = MetaNodeInfo::GetInstance();
  if (Failed(ZKGetAndUpdateMetaLeaderInfo(metaNode))) {
    // If the connection was lost after the list had been read, no event follows. A call with the watch that
    // fails now runs this watcher again once the connection is back.
    if (DoDlZooWgetChildren(zh, mMetaFollowerPath.c_str(), MetaNodeFollowerWatchFunc, nullptr, nullptr) !=
            ZOK ||
        Failed(ZKGetAndUpdateMetaLeaderInfo(metaNode))) {
      return;
    }
  }
  ZKCheckAndMarkFollowerBroken(metaNode, children.mNames);
} catch (...) {
  static_cast<void>(common::StatusOfException(__func__));
}

void ClusterZKAdapter::MetaNodeStatusWatchFunc(zhandle_t* zh, int type, int, const char* path, void*) try {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  if (!WatcherMayRun()) {
    return;
  }
  char buffer[kWatchedStatusLength];
  int length = kWatchedStatusLength;
  int result = DoDlZooWget(zh, path, MetaNodeStatusWatchFunc, nullptr, buffer, &length, nullptr);
  if (type != ZOO_CHANGED_EVENT) {
    VYN_LOG_INFO("MetaNodeStatusWatcher: OTHER EVENT: " << type << ", path: " << path);
  } else {
    VYN_LOG_INFO("MetaNodeStatusWatcher: ZOO_CHANGED_EVENT " << type << " path: " << path
                                                             << ", update information in memory");
  }
  if (type != ZOO_CHANGED_EVENT || result == ZNONODE) {
    // A znode that has been deleted since its event takes no watch from the read above.
    const int standing = DoDlZooWexists(g_ZKHandler, path, MetaNodeStatusWatchFunc, nullptr, nullptr);
    if (result == ZNONODE && standing == ZOK) {  // created between the two calls: no event follows
      length = kWatchedStatusLength;
      result = DoDlZooWget(zh, path, MetaNodeStatusWatchFunc, nullptr, buffer, &length, nullptr);
    }
  }
  if (type != ZOO_CHANGED_EVENT && result != ZOK) {
    return;
  }
  const std::string whole = path;
  const std::size_t mark = whole.find('/', mMetaStatusPath.size());
  const std::string name = mark == std::string::npos ? "" : whole.substr(mark + 1);
  if (name.empty()) {
    VYN_LOG_INFO("Failed to get leader ip from node path");
    return;
  }
  int status = 0;
  if (!ParseStatus(result == ZOK ? ValueText(buffer, length) : "", status)) {
    VYN_LOG_INFO("Failed to stoi the info from path: " << path);
    return;
  }
  if (Failed(ZKUpdateMemoryInformation(name, static_cast<MetaNodeStatus>(status), false))) {
    // The leader could not be read: there is none, or the connection was lost after the status had been read,
    // and then no event follows. The status itself is known.
    const Ref<MetaNodeInfo> metaNode = MetaNodeInfo::GetInstance();
    sync::WriterLock statusLock(metaNode->mNodeStatusLock);
    metaNode->mNodeStatusMap[name] = static_cast<MetaNodeStatus>(status);
  }
} catch (...) {
  static_cast<void>(common::StatusOfException(__func__));
}

}  // namespace vyn::cluster
