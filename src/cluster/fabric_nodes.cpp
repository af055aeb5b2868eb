// Reads what ZooKeeper holds about the nodes of the memory fabric. Each vynd writes the records of its own
// node (services/node/node_registry.cpp).

#include "cluster/cluster_zkadapter.h"
#include "cluster/node_records.h"
#include "cluster/zk_session.h"
#include "common/util/text.h"

#include <ctime>

namespace vyn::cluster {

namespace {

/// Reads a znode into `record`. A longer value is cut. A shorter one overwrites only the beginning of
/// `record`.
template <typename Record>
int ReadRecord(const std::string& path, int size, Record& record) {
  std::string value(static_cast<std::size_t>(size), '\0');
  const int result = DoDlZooGet(g_ZKHandler, path.c_str(), 0, value.data(), &size, nullptr);
  if (result == ZOK) {
    value.resize(static_cast<std::size_t>(size < 0 ? 0 : size));  // -1 for a znode without a value
    record.Decode(value);
  }
  return result;
}

}  // namespace

std::uint32_t ClusterZKAdapter::ClusterZKGetNodeList(std::set<unsigned int>& nodes) {
  VYN_CHECK_SESSION();
  Children children;
  const int result = DoDlZooGetChildren(g_ZKHandler, mNodePath.c_str(), 0, &children.mNames);
  if (result != ZOK) {
    Audit("get_node_list", false);
    VYN_LOG_ERROR("Failed to get children of " << mNodePath << ", ret: " << result << ", " << VYN_ZK_ERROR);
    return VYN_ERR_GENERIC;
  }
  if (TooMany(children.mNames)) {
    VYN_LOG_ERROR("Invalid nodes count from zookeeper for count is: " << children.mNames.count);
    return VYN_ERR_GENERIC;
  }
  for (int i = 0; i < children.mNames.count; ++i) {
    long nodeId = 0;
    if (!common::VynStol(children.mNames.data[i], nodeId)) {
      VYN_LOG_ERROR("Failed to parse node id from zookeeper.");
      return VYN_ERR_GENERIC;
    }
    nodes.insert(static_cast<unsigned int>(nodeId));
  }
  Audit("get_node_list", true);
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ClusterZKGetNodeInfo(unsigned int nodeId, NodeInfo& info) const {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  NodeRecord record{0, "127.0.0.1", "hostname"};
  const int result = ReadRecord(mNodePath + "/" + std::to_string(nodeId), kNodeRecordSize, record);
  if (result == ZNONODE) {
    info.nodeId = nodeId;
    info.exists = 0;
    return VYN_ERR_ZK_NO_NODE;
  }
  if (result != ZOK) {
    VYN_LOG_ERROR(VYN_ZK_ERROR);
    return VYN_ERR_ZK_CONNECTION_LOSS;
  }
  info.nodeId = nodeId;
  info.exists = 1;
  info.ip = record.address;
  info.hostName = record.hostName;
  info.auxValue = record.linkPort;
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ClusterZKGetMemInfo(unsigned int nodeId, NodeInfo& info) const {
  sync::RecursiveMutexLock lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  CapacityRecord record;
  if (ReadRecord(mCapacityPath + "/" + std::to_string(nodeId), kCapacityRecordSize, record) != ZOK) {
    return VYN_ERR_GENERIC;
  }
  info.capacityA = record.size;
  info.capacityB = record.free;
  info.capacityTime = record.time;
  return ConvertTimestamp(info.capacityTime, info.capacityTimeText);
}

std::uint32_t ClusterZKAdapter::ConvertTimestamp(unsigned long seconds, std::string& text) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm local{};
  if (localtime_r(&time, &local) == nullptr) {
    VYN_LOG_ERROR("Failed to get local time");
    return VYN_ERR_GENERIC;
  }
  char buffer[100];
  const std::size_t length = std::strftime(buffer, sizeof(buffer), "%04Y-%02m-%02d %H:%M:%S", &local);
  text.assign(buffer, length);
  return VYN_OK;
}

}  // namespace vyn::cluster
