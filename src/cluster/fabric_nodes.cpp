// Reads what ZooKeeper holds about the nodes of the memory fabric. Each vynd writes the records of its own
// node (services/node/node_registry.cpp).

#include "cluster/cluster_zkadapter.h"
#include "cluster/zk_session.h"

#include <bit>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace vyn::cluster {

namespace {

static_assert(std::endian::native == std::endian::little,
              "the records are little-endian and read as they stand");

/// The record of "/mf/node/{nodeId}".
struct NodeRecord {
  std::uint32_t ignored = 0;
  std::uint32_t auxValue = 0;
  char ip[16] = "127.0.0.1";
  char hostName[64] = "hostname";
};
static_assert(sizeof(NodeRecord) == 88);

/// The record of "/mf/capacity/{nodeId}".
struct CapacityRecord {
  std::uint64_t capacityA = 0;
  std::uint64_t capacityB = 0;
  std::uint64_t time = 0;
};
static_assert(sizeof(CapacityRecord) == 24);

/// Reads a znode into `record`. A longer value is cut. A shorter one overwrites only the beginning of
/// `record`.
template <typename Record>
int ReadRecord(const std::string& path, Record& record) {
  int length = sizeof(Record);
  return DoDlZooGet(g_ZKHandler, path.c_str(), 0, reinterpret_cast<char*>(&record), &length, nullptr);
}

template <std::size_t kSize>
std::string UpToNul(const char (&text)[kSize]) {
  return {text, strnlen(text, kSize)};
}

/// Reads the name of a node's znode as a node id. Returns: false when it is no number.
bool ParseNodeId(const char* name, unsigned int& nodeId) {
  char* end = nullptr;
  errno = 0;
  const long value = std::strtol(name, &end, 10);
  if (end == name || *end != '\0' || errno == ERANGE || (value == 0 && std::strcmp(name, "0") != 0)) {
    return false;
  }
  nodeId = static_cast<unsigned int>(value);
  return true;
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
    unsigned int nodeId = 0;
    if (!ParseNodeId(children.mNames.data[i], nodeId)) {
      VYN_LOG_ERROR("Failed to parse node id from zookeeper.");
      return VYN_ERR_GENERIC;
    }
    nodes.insert(nodeId);
  }
  Audit("get_node_list", true);
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ClusterZKGetNodeInfo(unsigned int nodeId, NodeInfo& info) const {
  std::lock_guard lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  NodeRecord record;
  const int result = ReadRecord(mNodePath + "/" + std::to_string(nodeId), record);
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
  info.ip = UpToNul(record.ip);
  info.hostName = UpToNul(record.hostName);
  info.auxValue = record.auxValue;
  return VYN_OK;
}

std::uint32_t ClusterZKAdapter::ClusterZKGetMemInfo(unsigned int nodeId, NodeInfo& info) const {
  std::lock_guard lock(mZKHandleLock);
  VYN_CHECK_SESSION();
  CapacityRecord record;
  if (ReadRecord(mCapacityPath + "/" + std::to_string(nodeId), record) != ZOK) {
    return VYN_ERR_GENERIC;
  }
  info.capacityA = record.capacityA;
  info.capacityB = record.capacityB;
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
