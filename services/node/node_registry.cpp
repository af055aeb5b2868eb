#include "services/node/node_registry.h"

#include "cluster/node_records.h"
#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <chrono>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);
constexpr auto kClaimPause = std::chrono::milliseconds(200);
/// Attempts to publish a record that another process creates or deletes at the same time.
constexpr unsigned int kPublishAttempts = 3;
constexpr const char* kFabricRoot = "/mf";
constexpr const char* kFabricNodes = "/mf/node";
constexpr const char* kFabricCapacities = "/mf/capacity";

std::string CapacityBytes(const fabric::FabricNode& fabric) {
  const fabric::FabricNodeStats stats = fabric.Stats();
  cluster::CapacityRecord record;
  record.size = stats.capacity;
  record.free = stats.capacity > stats.used ? stats.capacity - stats.used : 0;
  record.time = static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
  return record.Encode();
}

}  // namespace

NodeRegistry::NodeRegistry(NodeIdentity identity, const fabric::FabricNode& fabric,
                           std::function<void()> madeAnew)
    : mIdentity(std::move(identity)), mFabric(fabric), mMadeAnew(std::move(madeAnew)) {}

NodeRegistry::~NodeRegistry() { Stop(); }

bool NodeRegistry::Claim(std::string& error, const std::function<bool()>& stopping) {
  if (!MakeTree(error) || !CheckKnownAddress(error)) {
    return false;
  }
  auto retry = common::Retry::For(mIdentity.claimLimit, kClaimPause);
  Published published;
  do {
    published = PublishIdentity(error);
  } while (published == Published::kUndecided && !(stopping && stopping()) && retry.Again());
  if (!IsDone(published)) {
    return false;
  }
  // The id belongs to this node now, so its persistent records may be written.
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
  const auto asked = common::SteadyNow();
  const Published published = PublishCapacity(error);
  if (!IsDone(published)) {
    return false;
  }
  SetKnown(published, asked);
  mTask.Start({"This node's records could not be updated", kPeriod}, [this] { UpdateRecords(); });
  return true;
}

void NodeRegistry::Stop() {
  if (!mTask.Stop()) {
    return;
  }
  mKnownUntil = std::chrono::steady_clock::time_point();
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
  const nlohmann::json known = ParseJson(text);
  const auto* ip = FindField(known, "ip");
  if (ip == nullptr || !ip->is_string() || *ip == mIdentity.address || mIdentity.takeOver ||
      mFabric.Stats().objects != 0) {
    return true;  // object ids contain the node id, so a pool with objects has moved together with its node
  }
  error = "node id " + std::to_string(mIdentity.nodeId) + " is known at " + ip->get<std::string>() +
          " and this pool is empty; if that node is gone for good or has moved here, start once with "
          "--take-over";
  return false;
}

NodeRegistry::Published NodeRegistry::PublishEphemeral(
    const std::string& path, const std::string& record,
    const std::function<Published(const std::string& present)>& judge, std::string& error) {
  int result = ZOK;
  auto retry = common::Retry::Times(kPublishAttempts);
  do {
    std::string present;
    Stat stat{};
    result = zookeeper::Get(path, present, &stat);
    if (result == ZOK && zookeeper::IsOwn(stat)) {
      if (present == record) {
        return Published::kUnchanged;
      }
      result = zookeeper::Set(path, record);
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
        return Published::kMadeAnew;
      }
    }
  } while (retry.Again());
  error = "cannot publish " + path + ", zookeeper get error: " + zookeeper::ResultText(result);
  return Published::kFailed;
}

NodeRegistry::Published NodeRegistry::PublishIdentity(std::string& error) {
  const cluster::NodeRecord record{mIdentity.linkPort, mIdentity.address, mIdentity.hostName};
  const std::string path = std::string(kFabricNodes) + "/" + std::to_string(mIdentity.nodeId);
  return PublishEphemeral(
      path, record.Encode(),
      [&](const std::string& present) {
        cluster::NodeRecord other;
        other.Decode(present);
        const bool sameAddress = mIdentity.address == other.address;
        if (sameAddress && other.linkPort == mIdentity.linkPort) {
          return Published::kDone;
        }
        error = "node id " + std::to_string(mIdentity.nodeId) + " belongs to a node at " + other.address +
                ", link port " + std::to_string(other.linkPort) + ", see " + path;
        return sameAddress ? Published::kUndecided : Published::kForeign;
      },
      error);
}

NodeRegistry::Published NodeRegistry::PublishCapacity(std::string& error) {
  return PublishEphemeral(
      std::string(kFabricCapacities) + "/" + std::to_string(mIdentity.nodeId), CapacityBytes(mFabric),
      [](const std::string&) { return Published::kDone; }, error);
}

void NodeRegistry::SetKnown(Published write, std::chrono::steady_clock::time_point asked) {
  // A read proves nothing: a ZooKeeper server that is cut off from the others answers it, too.
  if (write == Published::kDone || write == Published::kMadeAnew) {
    mKnownUntil = asked + std::chrono::milliseconds(DoDlZooRecvTimeout(VynGetZkHandle())) / 2;
  }
}

void NodeRegistry::UpdateRecords() {
  // In a new session the ephemeral records of the old one are missing, and both calls create them again.
  std::string error;
  const auto asked = common::SteadyNow();
  const Published identity = PublishIdentity(error);
  if (identity == Published::kMadeAnew && mMadeAnew) {
    mMadeAnew();
  }
  const Published capacity = IsDone(identity) ? PublishCapacity(error) : identity;
  const bool now = IsDone(capacity);
  SetKnown(capacity, asked);
  if (!now && mPublished) {
    VYN_LOG_WARN("This node is not in the cluster's tree: " << error);
  } else if (now && !mPublished) {
    VYN_LOG_INFO("This node is in the cluster's tree again");
  }
  mPublished = now;
}

}  // namespace vyn::services
