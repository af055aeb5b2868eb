#include "services/node/node_registry.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <nlohmann/json.hpp>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);
constexpr auto kClaimPause = std::chrono::milliseconds(200);
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

bool NodeRegistry::Claim(std::string& error, const std::function<bool()>& stopping) {
  if (!MakeTree(error) || !CheckKnownAddress(error)) {
    return false;
  }
  const auto end = common::SteadyNow() + mIdentity.claimLimit;
  Published published = PublishIdentity(error);
  while (published == Published::kUndecided && common::SteadyNow() < end && !(stopping && stopping())) {
    common::SleepFor(kClaimPause);
    published = PublishIdentity(error);
  }
  if (published != Published::kDone) {
    return false;
  }
  // From here on the id is this node's.
  const std::string path = NodePath(mIdentity.nodeId);
  const std::string record = nlohmann::json{{"host", mIdentity.hostName}, {"ip", mIdentity.address}}.dump();
  int result = zookeeper::Ensure(path, record);
  if (result == ZOK) {
    result = zookeeper::Set(path, record);
  }
  if (result == ZOK) {
    result = zookeeper::Ensure(ReclaimPath(mIdentity.nodeId));
  }
  if (result != ZOK) {
    error = "cannot write " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
  }
  return result == ZOK;
}

bool NodeRegistry::Start(std::string& error) {
  if (!PublishCapacity(error)) {
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

bool NodeRegistry::MakeTree(std::string& error) {
  for (const char* path :
       {kFabricRoot, kFabricNodes, kFabricCapacities, kVynRoot, kNodesPath, kReclaimPath}) {
    if (const int result = zookeeper::Ensure(path); result != ZOK) {
      error = std::string("cannot make ") + path + ", zookeeper get error: " + zookeeper::ResultText(result);
      return false;
    }
  }
  return true;
}

bool NodeRegistry::CheckKnownAddress(std::string& error) {
  const std::string path = NodePath(mIdentity.nodeId);
  std::string text;
  const int result = zookeeper::Get(path, text);
  if (result != ZOK) {
    error = "cannot read " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
    return result == ZNONODE;
  }
  const auto known = nlohmann::json::parse(text, nullptr, false);
  const auto ip = known.is_object() ? known.find("ip") : known.end();
  if (!known.is_object() || ip == known.end() || !ip->is_string() || *ip == mIdentity.address ||
      mIdentity.takeOver || mFabric.Stats().objects != 0) {
    return true;  // objects carry the id: a pool with some has moved with its node
  }
  error = "node id " + std::to_string(mIdentity.nodeId) + " is known at " + ip->get<std::string>() +
          " and this pool is empty; when that node is gone for good or has moved here, start once with "
          "--take-over";
  return false;
}

NodeRegistry::Published NodeRegistry::PublishEphemeral(
    const std::string& path, const std::string& record,
    const std::function<Published(const std::string& present)>& judge, std::string& error) {
  int result = ZOK;
  for (int attempt = 0; attempt < 3; ++attempt) {
    std::string present;
    Stat stat{};
    result = zookeeper::Get(path, present, &stat);
    if (result == ZOK && zookeeper::IsOwn(stat)) {
      result = present == record ? ZOK : zookeeper::Set(path, record);
      if (result == ZOK) {
        return Published::kDone;
      }
      continue;
    }
    if (result == ZOK) {
      if (const Published judged = judge(present); judged != Published::kDone) {
        return judged;
      }
      result = zookeeper::Delete(path, stat.version);
    }
    if (result == ZOK || result == ZNONODE) {
      result = zookeeper::Create(path, record, true);
      if (result == ZOK) {
        return Published::kDone;
      }
    }
  }
  error = "cannot publish " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
  return Published::kFailed;
}

NodeRegistry::Published NodeRegistry::PublishIdentity(std::string& error) {
  NodeRecord record;
  record.linkPort = mIdentity.linkPort;
  CopyText(mIdentity.address, record.ip);
  CopyText(mIdentity.hostName, record.hostName);
  const std::string path = std::string(kFabricNodes) + "/" + std::to_string(mIdentity.nodeId);
  return PublishEphemeral(
      path, Bytes(record),
      [&](const std::string& present) {
        NodeRecord other;
        std::memcpy(&other, present.data(), std::min(present.size(), sizeof(other)));
        other.ip.back() = '\0';
        const bool sameAddress = mIdentity.address == other.ip.data();
        if (sameAddress && other.linkPort == mIdentity.linkPort) {
          return Published::kDone;
        }
        error = "node id " + std::to_string(mIdentity.nodeId) + " belongs to a node at " + other.ip.data() +
                ", link port " + std::to_string(other.linkPort) + ", see " + path;
        return sameAddress ? Published::kUndecided : Published::kForeign;
      },
      error);
}

bool NodeRegistry::PublishCapacity(std::string& error) {
  return PublishEphemeral(
             std::string(kFabricCapacities) + "/" + std::to_string(mIdentity.nodeId), CapacityBytes(mFabric),
             [](const std::string&) { return Published::kDone; }, error) == Published::kDone;
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
    try {
      Keep(published);
    } catch (const std::exception& failure) {  // no memory: the next round may have some
      VYN_LOG_ERROR("This node's records could not be kept: " << failure.what());
    }
  }
}

void NodeRegistry::Keep(bool& published) {
  // Also after a new session: what is missing is made again.
  std::string error;
  const bool now = PublishIdentity(error) == Published::kDone && PublishCapacity(error);
  if (!now && published) {
    VYN_LOG_WARN("This node is not in the cluster's tree: " << error);
  } else if (now && !published) {
    VYN_LOG_INFO("This node is in the cluster's tree again");
  }
  published = now;
}

}  // namespace vyn::services
