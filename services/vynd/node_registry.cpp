#include "services/vynd/node_registry.h"

#include "common/util/logging.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <array>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);
constexpr const char* kFabricRoot = "/mf";
constexpr const char* kFabricNodes = "/mf/node";
constexpr const char* kFabricCapacities = "/mf/capacity";

/// The record of a node, as every reader of the tree expects it: little-endian, 88 bytes.
struct NodeRecord {
  std::uint32_t reserved = 0;
  std::uint32_t linkPort = 0;
  std::array<char, 16> ip{};
  std::array<char, 64> hostName{};
};
static_assert(sizeof(NodeRecord) == 88);

/// The record of its capacity, 24 bytes.
struct CapacityRecord {
  std::uint64_t capacity = 0;  ///< bytes
  std::uint64_t free = 0;      ///< bytes
  std::uint64_t time = 0;      ///< seconds since the epoch
};
static_assert(sizeof(CapacityRecord) == 24);

template <typename Record>
std::string Bytes(const Record& record) {
  std::string bytes(sizeof(record), '\0');
  std::memcpy(bytes.data(), &record, sizeof(record));
  return bytes;
}

/// The last byte stays NUL.
template <std::size_t N>
void CopyText(const std::string& text, std::array<char, N>& field) {
  std::memcpy(field.data(), text.data(), std::min(text.size(), N - 1));
}

std::string CapacityBytes(const bm::FabricNode& fabric) {
  const bm::FabricNodeStats stats = fabric.Stats();
  CapacityRecord record;
  record.capacity = stats.capacity;
  record.free = stats.capacity > stats.used ? stats.capacity - stats.used : 0;
  record.time = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
  return Bytes(record);
}

}  // namespace

NodeRegistry::NodeRegistry(NodeIdentity identity, const bm::FabricNode& fabric)
    : mIdentity(std::move(identity)), mFabric(fabric) {}

NodeRegistry::~NodeRegistry() { Stop(); }

bool NodeRegistry::Start(std::string& error) {
  if (!Publish(error)) {
    return false;
  }
  mThread = std::thread([this] { Run(); });
  return true;
}

void NodeRegistry::Stop() {
  {
    std::lock_guard lock(mMutex);
    if (mStopping || !mThread.joinable()) {
      return;
    }
    mStopping = true;
  }
  mWake.notify_all();
  mThread.join();
  for (const char* parent : {kFabricNodes, kFabricCapacities}) {
    const std::string path = std::string(parent) + "/" + std::to_string(mIdentity.nodeId);
    Stat stat{};
    if (zookeeper::Exists(path, &stat) == ZOK && zookeeper::IsOwn(stat)) {
      zookeeper::Delete(path);
    }
  }
}

bool NodeRegistry::PublishEphemeral(const std::string& path, const std::string& record, bool identity,
                                    std::string& error) {
  int result = ZOK;
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::string present;
    Stat stat{};
    result = zookeeper::Get(path, present, &stat);
    if (result == ZOK && zookeeper::IsOwn(stat)) {
      result = present == record ? ZOK : zookeeper::Set(path, record);
      if (result == ZOK) {
        return true;
      }
      continue;
    }
    if (result == ZOK) {
      // Of an earlier session: our own before a restart, or another node with this id.
      if (identity && present != record) {
        error = "node id " + std::to_string(mIdentity.nodeId) +
                " belongs to a node at another address, see " + path;
        return false;
      }
      result = zookeeper::Delete(path, stat.version);
    }
    if (result == ZOK || result == ZNONODE) {
      result = zookeeper::Create(path, record, true);
      if (result == ZOK) {
        return true;
      }
    }
  }
  error = "cannot publish " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
  return false;
}

bool NodeRegistry::Publish(std::string& error) {
  const std::string persistent =
      nlohmann::json{{"host", mIdentity.hostName}, {"ip", mIdentity.address}}.dump();
  const std::array<std::pair<std::string, std::string>, 8> tree{{{kFabricRoot, ""},
                                                                 {kFabricNodes, ""},
                                                                 {kFabricCapacities, ""},
                                                                 {kVynRoot, ""},
                                                                 {kNodesPath, ""},
                                                                 {kReclaimPath, ""},
                                                                 {NodePath(mIdentity.nodeId), persistent},
                                                                 {ReclaimPath(mIdentity.nodeId), ""}}};
  for (const auto& [path, value] : tree) {
    if (const int result = zookeeper::Ensure(path, value); result != ZOK) {
      error = "cannot make " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
      return false;
    }
  }
  if (const int result = zookeeper::Set(NodePath(mIdentity.nodeId), persistent); result != ZOK) {
    error = "cannot write " + NodePath(mIdentity.nodeId) +
            ", zookeeper get error: " + zookeeper::ResultText(result);
    return false;
  }
  return PublishEphemerals(error);
}

bool NodeRegistry::PublishEphemerals(std::string& error) {
  NodeRecord record;
  record.linkPort = mIdentity.linkPort;
  CopyText(mIdentity.address, record.ip);
  CopyText(mIdentity.hostName, record.hostName);
  const std::string id = std::to_string(mIdentity.nodeId);
  return PublishEphemeral(std::string(kFabricNodes) + "/" + id, Bytes(record), true, error) &&
         PublishEphemeral(std::string(kFabricCapacities) + "/" + id, CapacityBytes(mFabric), false, error);
}

void NodeRegistry::Run() {
  bool published = true;
  for (;;) {
    {
      std::unique_lock lock(mMutex);
      if (mWake.wait_for(lock, kPeriod, [this] { return mStopping; })) {
        return;
      }
    }
    // Also after a new session: what is missing is made again.
    std::string error;
    const bool now = PublishEphemerals(error);
    if (!now && published) {
      VYN_LOG_WARN("This node is not in the cluster's tree: " << error);
    } else if (now && !published) {
      VYN_LOG_INFO("This node is in the cluster's tree again");
    }
    published = now;
  }
}

}  // namespace vyn::services
