// The election: the node that creates the leader znode leads for as long as its ZooKeeper session lives.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"
#include "common/util/clock.h"

#include <chrono>

namespace vyn::cluster {

using common::MetaNodeRole;

namespace {

/// Attempts in a row that ZooKeeper did not answer.
std::int32_t gLeaderTimeouts VYN_GUARDED_BY(ClusterZKAdapter::mZKHandleLock) = 0;

constexpr std::chrono::seconds kMutexWait{300};
constexpr std::chrono::seconds kMutexPause{5};

std::string FollowerPath(const std::string& node) { return ClusterZKAdapter::mMetaFollowerPath + "/" + node; }

/// Reads the leader's address and every node's status into MetaNodeInfo.
std::uint32_t ReadLeaderAndStatuses(const std::string& node) {
  return ClusterZKAdapter::ZKUpdateMemoryInformation(node, common::META_NODE_STATUS_NONE, true);
}

/// Completes the change from follower to leader: marks the old leader as broken and deletes this node's
/// follower znode. The leader watch updates mLeaderAddress.
std::uint32_t TakeOver(const Ref<MetaNodeInfo>& metaNode) {
  std::string oldLeader;
  {
    sync::ReaderLock leaderLock(metaNode->mLeaderLock);
    oldLeader = metaNode->mLeaderAddress;
  }
  const std::uint32_t marked = ClusterZKAdapter::ZKSetStatus(oldLeader, common::META_NODE_STATUS_BROKEN);
  if (Failed(marked)) {
    return marked;
  }
  return ClusterZKAdapter::ZKTryDeleteMetaElectionFollower(FollowerPath(metaNode->mNodeAddress));
}

/// Whether the znode belongs to this process's session.
bool IsOwn(const std::string& path) {
  Stat stat{};
  const std::int64_t session = DoDlZooClientId(g_ZKHandler).client_id;
  return session != 0 && DoDlZooExists(g_ZKHandler, path.c_str(), 0, &stat) == ZOK &&
         stat.ephemeralOwner == session;
}

}  // namespace

std::uint32_t ClusterZKAdapter::ZKTryBecomeMetaElectionLeader(const Ref<MetaNodeInfo>& metaNode,
                                                              bool& isLeader) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  VYN_CHECK_POINTER(metaNode);
  const std::string node = metaNode->mNodeAddress;
  const int result =
      DoDlZooCreate(g_ZKHandler, mMetaLeaderPath.c_str(), node.data(), static_cast<int>(node.size()),
                    &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0);
  isLeader = result == ZOK;
  if (result == ZOK || result == ZNODEEXISTS) {
    gLeaderTimeouts = 0;
    return VYN_OK;
  }
  if (result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT) {
    ++gLeaderTimeouts;
    VYN_LOG_WARN("Create Meta leader of path: " << mMetaLeaderPath << " timeout, ret is: " << result
                                                << " retry: " << gLeaderTimeouts);
    return VYN_OK;
  }
  Audit("elect_leader", false);
  VYN_LOG_ERROR("Create Meta leader node of path: " << mMetaLeaderPath << " failed, ret is: " << result
                                                    << ", " << VYN_ZK_ERROR);
  return VYN_ERR_GENERIC;
}

std::uint32_t ClusterZKAdapter::ZKTryDeleteMetaElectionLeader() {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  const int result = DoDlZooDelete(g_ZKHandler, mMetaLeaderPath.c_str(), -1);
  if (result == ZOK) {
    VYN_LOG_INFO("Success to delete meta leader information in zookeeper");
    return VYN_OK;
  }
  if (result == ZNONODE) {
    VYN_LOG_WARN("Meta leader has been removed by zookeeper before vynd voluntarily remove");
  } else {
    VYN_LOG_ERROR("Failed to voluntarily remove meta leader, " << VYN_ZK_ERROR);
  }
  return VYN_ERR_GENERIC;
}

std::uint32_t ClusterZKAdapter::ZKCreateMetaElectionFollower(const Ref<MetaNodeInfo>& metaNode) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  VYN_CHECK_POINTER(metaNode);
  const std::string path = FollowerPath(metaNode->mNodeAddress);
  const int result =
      DoDlZooCreate(g_ZKHandler, path.c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, ZOO_EPHEMERAL, nullptr, 0);
  const bool announced = result == ZOK || result == ZNODEEXISTS;
  Audit("create_follower_path", announced);
  if (!announced) {
    VYN_LOG_ERROR("Create Meta follow path: " << path << " failed, ret is: " << result << ", "
                                              << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKTryDeleteMetaElectionFollower(const std::string& path) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  if (DoDlZooDelete(g_ZKHandler, path.c_str(), -1) != ZOK) {
    Audit("delete_follower", false);
    VYN_LOG_WARN("Failed to delete follower node from path: " << path << ", " << VYN_ZK_ERROR);
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKElectionOperate(Ref<MetaNodeInfo>& metaNode) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  VYN_CHECK_POINTER(metaNode);
  bool isLeader = true;
  const std::string node = metaNode->mNodeAddress;
  const std::uint32_t attempt = ZKTryBecomeMetaElectionLeader(metaNode, isLeader);
  if (Failed(attempt)) {
    return attempt;
  }
  std::atomic<MetaNodeRole>& role = metaNode->mMetaNodeRole;
  switch (role.load()) {
    case MetaNodeRole::LOOKING:
      if (isLeader) {
        role = MetaNodeRole::LEADER;
        VYN_LOG_INFO("Current metadata node changed from LOOKING to LEADER");
        sync::WriterLock leaderLock(metaNode->mLeaderLock);
        metaNode->mLeaderAddress = node;
        return VYN_OK;
      }
      role = MetaNodeRole::FOLLOWER;
      VYN_LOG_INFO("Current metadata node changed from LOOKING to FOLLOWER");
      return ReadLeaderAndStatuses(node);
    case MetaNodeRole::LEADER:
      if (isLeader) {
        VYN_LOG_WARN("Current metadata node changed from LEADER to LEADER, do nothing");
        return VYN_OK;
      }
      role = MetaNodeRole::FOLLOWER;
      VYN_LOG_INFO("Current metadata node changed from LEADER to FOLLOWER");
      return ReadLeaderAndStatuses(node);
    case MetaNodeRole::FOLLOWER:
      if (isLeader) {
        role = MetaNodeRole::LEADER;
        VYN_LOG_INFO("Current metadata node changed from FOLLOWER to LEADER");
        return TakeOver(metaNode);
      }
      VYN_LOG_DEBUG("Current metadata node is FOLLOWER, waiting for become LEADER, do nothing");
      return VYN_OK;
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKWaitAndCreateMetaMutex() {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  const auto begin = common::SteadyNow();
  const auto passed = [begin] {
    return std::chrono::duration_cast<std::chrono::seconds>(common::SteadyNow() - begin);
  };
  bool uncertain = false;
  while (passed() <= kMutexWait) {
    const int result = DoDlZooCreate(g_ZKHandler, mMetaMutexPath.c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE,
                                     ZOO_EPHEMERAL, nullptr, 0);
    // After a create whose reply was lost, the existing znode may be our own. We must not wait for ourselves.
    if (result == ZOK || (result == ZNODEEXISTS && uncertain && IsOwn(mMetaMutexPath))) {
      VYN_LOG_INFO("Success to get&create metadata zookeeper mutex, start to create meta status");
      break;
    }
    if (result == ZNODEEXISTS) {
      common::SleepFor(kMutexPause);
      continue;
    }
    Audit("create_status_dynamic", false);
    VYN_LOG_ERROR("Failed to create metadata zookeeper mutex. ret is " << result
                                                                       << VynZookeeperGetLastMessage());
    if (result != ZOPERATIONTIMEOUT) {
      return VYN_ERR_GENERIC;
    }
    uncertain = true;
  }
  if (passed() < kMutexWait + std::chrono::seconds(1)) {
    return VYN_OK;
  }
  Audit("create_status_dynamic", false);
  VYN_LOG_ERROR("Time out for create metadata service. timeout is: "
                << kMutexWait.count() << "(s), has processed " << passed().count() << "(s)");
  return VYN_ERR_GENERIC;
}

std::uint32_t ClusterZKAdapter::ZKReleaseMetaMutex() {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  const int result = DoDlZooDelete(g_ZKHandler, mMetaMutexPath.c_str(), -1);
  if (result == ZOK) {
    VYN_LOG_INFO("Pass the clear process of /meta/mutex, ret is: " << result);
    return VYN_OK;
  }
  if (result == ZNONODE) {
    Audit("delete_meta_mutex", true);
    VYN_LOG_WARN("Meta mutex has already been cleared by others, maybe mutex has no effect, ret is << "
                 << result);
    return VYN_OK;
  }
  Audit("delete_meta_mutex", false);
  VYN_LOG_ERROR("Failed to clear /meta/mutex, ret is: " << result << ", " << VYN_ZK_ERROR);
  return VYN_ERR_GENERIC;
}

}  // namespace vyn::cluster
