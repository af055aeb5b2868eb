// The status tree: one persistent znode for each metadata node, with its status as decimal text.

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"

#include <string>
#include <unordered_set>

namespace vyn::cluster {

namespace {

/// The most bytes that are read of a status.
constexpr int kStatusLength = 100;
/// The content of a new status znode.
constexpr const char* kFirstStatus = "1";

std::string StatusPath(const std::string& node) { return ClusterZKAdapter::mMetaStatusPath + "/" + node; }

std::map<std::string, MetaNodeStatus> CopyStatusMap(const Ref<MetaNodeInfo>& metaNode) {
  sync::ReaderLock lock(metaNode->mNodeStatusLock);
  return metaNode->mNodeStatusMap;
}

void PutStatus(const Ref<MetaNodeInfo>& metaNode, const std::string& node, MetaNodeStatus status) {
  sync::WriterLock lock(metaNode->mNodeStatusLock);
  metaNode->mNodeStatusMap[node] = status;
}

/// Reads the children of "/meta/status". A failure is audited under `operation`.
std::uint32_t ListStatusNodes(String_vector& children, const char* operation) {
  const int result = DoDlZooGetChildren(g_ZKHandler, ClusterZKAdapter::mMetaStatusPath.c_str(), 0, &children);
  if (result != ZOK) {
    Audit(operation, false);
    VYN_LOG_ERROR("Failed to get children of /meta/status, ret :" << result << ", count is: "
                                                                  << children.count << ", " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

/// Reads one status znode. Returns: the ZooKeeper client's result.
int ReadStatus(const std::string& path, std::string& text) {
  char buffer[kStatusLength];
  int length = kStatusLength;
  const int result = DoDlZooGet(g_ZKHandler, path.c_str(), 0, buffer, &length, nullptr);
  if (result == ZOK) {
    text = ValueText(buffer, length);
  }
  return result;
}

}  // namespace

std::uint32_t ClusterZKAdapter::ZKCreateStatus(std::map<std::string, MetaNodeStatus>& nodes) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  int result =
      DoDlZooCreate(g_ZKHandler, mMetaStatusPath.c_str(), nullptr, -1, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
  if (result == ZNODEEXISTS) {
    Audit("create_node", true);
    VYN_LOG_WARN("Meta node has already been created by others, maybe mutex has no effect");
  } else if (result == ZOK) {
    VYN_LOG_INFO("Success to create meta status node: " << mMetaStatusPath);
  } else {
    Audit("create_node", false);
    VYN_LOG_ERROR("Failed Create meta node: " << mMetaStatusPath << ", ret:" << result << ", "
                                              << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  for (const auto& [node, status] : nodes) {
    const std::string path = StatusPath(node);
    result = DoDlZooCreate(g_ZKHandler, path.c_str(), kFirstStatus, 1, &ZOO_OPEN_ACL_UNSAFE, 0, nullptr, 0);
    if (result == ZNODEEXISTS) {
      Audit("create_status", true);
      VYN_LOG_WARN("Meta status has already been created by others, maybe mutex has no effect");
    } else if (result == ZOK) {
      VYN_LOG_INFO("Success to create meta status: " << path);
    } else {
      Audit("create_status", false);
      VYN_LOG_ERROR("Failed Create meta status: " << path << ", ret:" << result << ", " << VYN_ZK_ERROR);
      return VYN_ERR_GENERIC;
    }
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKClearAndCreateStatusDynamic(const Ref<MetaNodeInfo>& metaNode) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  VYN_CHECK_POINTER(metaNode);
  int result = DoDlZooDelete(g_ZKHandler, mMetaStatusPath.c_str(), -1);
  if (result == ZOK || result == ZNONODE) {
    VYN_LOG_INFO("Nodes in /meta/status cleared");
  } else {
    if (result == ZNOTEMPTY) {
      VYN_LOG_INFO("/meta/status has children, need to clear children firstly");
      const std::uint32_t cleared = ZKClearAllStatusNode();
      if (Failed(cleared)) {
        return cleared;
      }
      result = DoDlZooDelete(g_ZKHandler, mMetaStatusPath.c_str(), -1);
    }
    if (result != ZOK) {
      Audit("delete_meta_conf", false);
      VYN_LOG_ERROR("Failed to clear /meta/status, ret is: " << result << ", " << VYN_ZK_ERROR);
      return VYN_ERR_GENERIC;
    }
    VYN_LOG_INFO("Pass the clear process of /meta/status, ret is: " << result);
  }
  std::map<std::string, MetaNodeStatus> nodes = CopyStatusMap(metaNode);
  return ZKCreateStatus(nodes);
}

std::uint32_t ClusterZKAdapter::ZKClearAllStatusNode() {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  Children children;
  const std::uint32_t listed = ZKGetAllStatusNode(children.mNames);
  if (Failed(listed)) {
    return listed;
  }
  for (int i = 0; i < children.mNames.count; ++i) {
    const std::string path = StatusPath(children.mNames.data[i]);
    const int result = DoDlZooDelete(g_ZKHandler, path.c_str(), -1);
    if (result != ZOK) {
      Audit("clear_meta_children", false);
      VYN_LOG_ERROR("Failed to clear node named: " << path << ", ret :" << result << ", " << VYN_ZK_ERROR);
    }
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKGetAllStatusNode(String_vector& children) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  return ListStatusNodes(children, "get_status_children");
}

std::uint32_t ClusterZKAdapter::ZKSetStatus(const std::string& node, MetaNodeStatus status) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  const std::string path = StatusPath(node);
  const std::string text = std::to_string(static_cast<int>(status));
  std::string old;
  int result = ReadStatus(path, old);
  if (result != ZOK) {
    Audit("get_status", false);
    VYN_LOG_ERROR("Failed to get status from path: " << path << ", ret is: " << result << ", "
                                                     << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  result = DoDlZooSet(g_ZKHandler, path.c_str(), text.c_str(), static_cast<int>(text.size()), -1);
  if (result != ZOK) {
    Audit("set_status", false);
    VYN_LOG_ERROR("Failed to set status: " << text << " into path: " << path << ", ret is: " << result << " "
                                           << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKGetNodeWithStatusList(
    std::vector<std::pair<std::string, MetaNodeStatus>>& list) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  Children children;
  const std::uint32_t listed = ListStatusNodes(children.mNames, "get_meta_children");
  if (Failed(listed)) {
    return listed;
  }
  if (TooMany(children.mNames)) {
    VYN_LOG_ERROR("Invalid nodes count from zookeeper for count is: " << children.mNames.count);
    return VYN_ERR_GENERIC;
  }
  for (int i = 0; i < children.mNames.count; ++i) {
    const std::string path = StatusPath(children.mNames.data[i]);
    std::string text;
    const int result = ReadStatus(path, text);
    if (result != ZOK) {
      Audit("get_status", false);
      VYN_LOG_ERROR("Failed to get node info of " << path << ", ret :" << result << ", " << VYN_ZK_ERROR);
      return VYN_ERR_GENERIC;
    }
    int status = 0;
    if (!ParseStatus(text, status)) {
      VYN_LOG_ERROR("Failed to stoi status from path: " << path);
      return VYN_ERR_GENERIC;
    }
    list.emplace_back(children.mNames.data[i], static_cast<MetaNodeStatus>(status));
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKUpdateMemoryInformation(const std::string& node, MetaNodeStatus status,
                                                          bool refreshAll) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  const Ref<MetaNodeInfo> metaNode = MetaNodeInfo::GetInstance();
  const std::uint32_t updated = ZKGetAndUpdateMetaLeaderInfo(metaNode);
  if (Failed(updated)) {
    return updated;
  }
  if (!refreshAll) {
    if (status != common::META_NODE_STATUS_NONE) {
      PutStatus(metaNode, node, status);
    }
    return VYN_OK;
  }
  std::vector<std::pair<std::string, MetaNodeStatus>> list;
  const std::uint32_t read = ZKGetNodeWithStatusList(list);
  if (Failed(read)) {
    return read;
  }
  for (const auto& [name, value] : list) {
    PutStatus(metaNode, name, value);
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ZKCheckAndMarkFollowerBroken(const Ref<MetaNodeInfo>& metaNode,
                                                             String_vector& followers) {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  Children taken;  // freed on every path
  std::swap(taken.mNames, followers);
  VYN_CHECK_SESSION();
  VYN_CHECK_POINTER(metaNode);
  const std::map<std::string, MetaNodeStatus> nodes = CopyStatusMap(metaNode);
  std::unordered_set<std::string> present;
  for (int i = 0; i < taken.mNames.count; ++i) {
    present.emplace(taken.mNames.data[i]);
  }
  std::string leader;
  {
    sync::ReaderLock leaderLock(metaNode->mLeaderLock);
    leader = metaNode->mLeaderAddress;
  }
  for (const auto& [node, status] : nodes) {
    if (status != common::META_NODE_STATUS_ALIVE || node == leader || present.count(node) != 0) {
      continue;
    }
    if (Failed(ZKSetStatus(node, common::META_NODE_STATUS_BROKEN))) {
      return VYN_ERR_GENERIC;
    }
  }
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::PutMetaIntoContainer(std::string& list, const std::string& separator,
                                                     std::map<std::string, MetaNodeStatus>& nodes) {
  if (separator.empty()) {
    VYN_LOG_ERROR("Failed to deal result.");
    return VYN_ERR_GENERIC;
  }
  try {
    list += separator;
    for (std::size_t begin = 0, end = 0; (end = list.find(separator, begin)) != std::string::npos;
         begin = end + separator.size()) {
      nodes.emplace(list.substr(begin, end - begin), common::META_NODE_STATUS_INIT);
    }
  } catch (const std::exception&) {
    VYN_LOG_ERROR("Failed to deal result.");
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

}  // namespace vyn::cluster
