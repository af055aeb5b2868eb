#include "services/metadata/metadata_store.h"

#include "cluster/cluster_zkadapter.h"
#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "vyn/status.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>
#include <utility>

namespace vyn::services {

namespace {

using zookeeper::Transaction;

/// Threads that read the applications when a leadership begins.
constexpr unsigned int kLoaders = 8;
/// Records that one transaction deletes.
constexpr std::size_t kDeleteBatch = 100;
/// Tries against others that make records where they are deleted.
constexpr int kDeleteAttempts = 5;
/// Tries against another leader's raise of the epoch.
constexpr int kRaiseAttempts = 10;

/// How long the nodes have for forgetting a variable, and how often that is looked at.
constexpr auto kForgetLimit = std::chrono::seconds(5);
constexpr auto kForgetPause = std::chrono::milliseconds(50);

/// Whether ZooKeeper did not answer: a write with this result may have taken effect all the same.
bool IsUncertain(int result) {
  return result == ZCONNECTIONLOSS || result == ZOPERATIONTIMEOUT || result == ZINVALIDSTATE ||
         result == ZSESSIONEXPIRED || result == ZCLOSING;
}

/// The status for a read that failed.
std::uint32_t StoreFailure(int result, const std::string& what) {
  VYN_LOG_ERROR("Failed to " << what << ", zookeeper get error: " << zookeeper::ResultText(result));
  return IsUncertain(result) ? MetadataStore::kStatusUnanswered : kStatusStore;
}

/// Records are our own, but anything that can write to ZooKeeper can damage them.
bool Flag(const nlohmann::json& json, const char* name) {
  const auto found = json.is_object() ? json.find(name) : json.end();
  return json.is_object() && found != json.end() && found->is_boolean() && found->get<bool>();
}

}  // namespace

const std::uint32_t MetadataStore::kStatusDeposed = VYN_ERR_RPC_TRANSPORT_A;

std::string MetadataStore::Unique() {
  return std::to_string(mEpoch) + "-" + std::to_string(mCounter.fetch_add(1, std::memory_order_relaxed));
}

std::uint32_t MetadataStore::End() {
  mOver.store(true, std::memory_order_release);
  return kStatusDeposed;
}

std::uint32_t MetadataStore::StatusOf(int result, const std::string& what) {
  if (result == ZOK) {
    return VYN_OK;
  }
  if (result == ZBADVERSION) {
    VYN_LOG_WARN("Refused to " << what << ": another metadata leader has taken over from epoch " << mEpoch);
    return End();
  }
  const std::uint32_t status = StoreFailure(result, what);
  return IsUncertain(result) ? End() : status;
}

std::uint32_t MetadataStore::Commit(Transaction& transaction, const std::string& what) {
  return StatusOf(transaction.Commit(), what);
}

std::uint32_t MetadataStore::RaiseEpoch() {
  for (const char* path : {kVynRoot, kEpochPath, kNodesPath, kAppsPath, kReclaimPath}) {
    if (const int result = zookeeper::Ensure(path); result != ZOK) {
      return StoreFailure(result, std::string("make ") + path);
    }
  }
  for (int attempt = 0; attempt < kRaiseAttempts; ++attempt) {
    Stat stat{};
    int result = zookeeper::Exists(kEpochPath, &stat);
    if (result == ZOK) {
      result = zookeeper::Set(kEpochPath, "", stat.version);
      if (result == ZOK) {
        mEpoch = stat.version + 1;
        return VYN_OK;
      }
    }
    if (result != ZBADVERSION) {
      return StoreFailure(result, "raise the epoch");
    }
  }
  return kStatusDeposed;
}

std::uint32_t MetadataStore::Open(std::map<std::string, Application>& applications, Deletions& deletions,
                                  std::chrono::steady_clock::time_point* asked) {
  if (const std::uint32_t status = RaiseEpoch(); Failed(status)) {
    return status;
  }
  std::vector<std::string> names;
  if (const int result = zookeeper::Children(kAppsPath, names); result != ZOK) {
    return StoreFailure(result, "list the applications");
  }
  std::vector<Application> loaded(names.size());
  std::atomic<std::size_t> next{0};
  std::atomic<std::uint32_t> failure{VYN_OK};
  const auto load = [&] {
    try {
      for (std::size_t i = next++; i < names.size() && !Failed(failure); i = next++) {
        if (const std::uint32_t status = LoadApplication(names[i], loaded[i]); Failed(status)) {
          failure = status;
        }
      }
    } catch (const std::exception& problem) {
      VYN_LOG_ERROR("The records could not be read: " << problem.what());
      failure = VYN_ERR_NULL_POINTER;
    }
  };
  {
    std::vector<std::jthread> loaders;
    const std::size_t count = std::min<std::size_t>(kLoaders, names.size());
    for (std::size_t i = 1; i < count; ++i) {
      loaders.emplace_back(load);
    }
    load();
  }
  if (Failed(failure)) {
    return failure;
  }
  applications.clear();
  for (Application& application : loaded) {
    if (!application.name.empty()) {
      applications.emplace(application.name, std::move(application));
    }
  }
  if (asked != nullptr) {
    *asked = common::SteadyNow();
  }
  if (const std::uint32_t status = LoadDeletions(deletions); Failed(status)) {
    return status;
  }
  VYN_LOG_INFO("Metadata of " << applications.size() << " applications read, epoch " << mEpoch);
  return VYN_OK;
}

std::uint32_t MetadataStore::LoadDeletions(Deletions& deletions) {
  // A node that is down, or has lost its session, forgets all before it serves from a new one, and its list may
  // be long.
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  VYN_CHECK_POINTER(adapter);
  std::vector<std::string> nodes;
  int result = zookeeper::Children(adapter->mNodePath, nodes);
  for (std::size_t i = 0; i < nodes.size() && result == ZOK; ++i) {
    const std::string list = std::string(kReclaimPath) + "/" + nodes[i];
    std::vector<std::string> names;
    result = zookeeper::Children(list, names);
    for (std::size_t n = 0; n < names.size() && result == ZOK; ++n) {
      std::string text;
      ReclaimEntry entry;
      result = zookeeper::Get(list + "/" + names[n], text);
      if (result == ZOK && ReclaimEntry::FromText(text, entry) && !entry.variablePath.empty()) {
        deletions[{entry.application, entry.variableId}].push_back(list + "/" + names[n]);
      }
      result = result == ZNONODE ? static_cast<int>(ZOK) : result;  // done meanwhile
    }
    result = result == ZNONODE ? static_cast<int>(ZOK) : result;
  }
  return result == ZOK || result == ZNONODE ? VYN_OK : StoreFailure(result, "read what nodes have to forget");
}

std::uint32_t MetadataStore::LoadApplication(const std::string& name, Application& application) {
  const std::string path = AppPath(name);
  std::string text;
  int result = zookeeper::Get(path, text);
  std::vector<std::string> children;
  if (result == ZOK) {
    result = zookeeper::Children(path, children);
  }
  if (result == ZNONODE) {
    return VYN_OK;  // it went meanwhile
  }
  if (result != ZOK) {
    return StoreFailure(result, "read " + path);
  }
  application.name = name;
  const auto json = nlohmann::json::parse(text, nullptr, false);
  application.heartbeat = Flag(json, "heartbeat");
  if (Flag(json, kRemovedFlag)) {
    // An earlier leadership ended in the middle of the removal.
    application.name.clear();
    return RemoveApplication(name);
  }
  for (const std::string& child : children) {
    if (child == kTokenName) {
      continue;
    }
    Variable variable;
    bool deleted = false;
    variable.path = path + "/" + child;
    if (const std::uint32_t status = LoadVariable(variable.path, variable, deleted); Failed(status)) {
      return status;
    }
    if (deleted) {
      continue;
    }
    variable.id = static_cast<std::uint32_t>(std::strtoul(child.c_str(), nullptr, 10));
    const auto [kept, added] = application.variables.try_emplace(variable.id, std::move(variable));
    if (!added) {
      if (const std::uint32_t status = Settle(name, kept->second, variable); Failed(status)) {
        return status;
      }
    }
  }
  return VYN_OK;
}

std::uint32_t MetadataStore::Settle(const std::string& application, Variable& kept, Variable& other) {
  if (other.ready && !kept.ready) {
    std::swap(kept, other);
  }
  VYN_LOG_WARN("Variable " << kept.path << " stands twice, " << other.path << " is deleted");
  std::vector<std::string> entries;
  return RemoveVariable(application, other, entries);
}

std::uint32_t MetadataStore::LoadVariable(const std::string& path, Variable& variable, bool& deleted) {
  VariableRecord record;
  switch (ReadVariableRecord(path, record)) {
    case RecordRead::kFailed:
      return kStatusStore;
    case RecordRead::kAbsent:
      if (record.state == RecordState::kReady) {
        VYN_LOG_ERROR("A piece of the record " << path << " is missing, the variable is left out");
      }  // otherwise its node has taken it away meanwhile
      deleted = true;
      return VYN_OK;
    case RecordRead::kDamaged:
      deleted = true;  // it cannot be served; the log names it
      return VYN_OK;
    case RecordRead::kRead:
      break;
  }
  deleted = record.state == RecordState::kDeleted;
  variable.blockNum = record.blockNum;
  variable.pieces = record.pieces;
  variable.list = record.list;
  variable.ready = record.state == RecordState::kReady;
  variable.nodeId = record.blocks.nodeId;
  variable.bmIds = std::move(record.blocks.bmIds);
  variable.sizes = std::move(record.blocks.sizes);
  return VYN_OK;
}

std::uint32_t MetadataStore::AddApplication(const std::string& application) {
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch).Create(AppPath(application), "{}");
  const int result = transaction.Commit();
  if (result == ZOK || result == ZNODEEXISTS) {
    return VYN_OK;  // a node's registration may have made it
  }
  return StatusOf(result, "make application " + application);
}

std::uint32_t MetadataStore::MarkHeartbeat(const std::string& application) {
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch).Set(AppPath(application), R"({"heartbeat":true})");
  return Commit(transaction, "mark the heartbeat of " + application);
}

std::uint32_t MetadataStore::AddVariable(const std::string& application, Variable& variable) {
  variable.path = AppPath(application) + "/" + std::to_string(variable.id) + "." + Unique();
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch)
      .Create(variable.path, RecordHeader(RecordState::kNew, variable.blockNum, 0));
  return Commit(transaction, "make variable " + variable.path);
}

std::uint32_t MetadataStore::SetBlocks(const std::string& application, Variable& variable) {
  tessel::BroadcastBlockInfo info;
  info.appId = application;
  info.broadcastId = variable.id;
  info.nodeId = variable.nodeId;
  info.bmIds = variable.bmIds;
  info.sizes = variable.sizes;
  if (const std::uint32_t status = info.Serialize(); Failed(status)) {
    return status;
  }
  const std::string body(reinterpret_cast<const char*>(info.SerializedData()), info.SerializedDataSize());
  const std::string oldList = std::exchange(variable.list, Unique());
  const std::uint32_t oldPieces = std::exchange(
      variable.pieces, static_cast<std::uint32_t>((body.size() + kRecordPieceSize - 1) / kRecordPieceSize));
  for (std::uint32_t i = 1; i < variable.pieces; ++i) {
    const std::string path = PiecePath(variable.path, variable.list, i);
    Transaction transaction;
    transaction.Check(kEpochPath, mEpoch).Create(path, body.substr(i * kRecordPieceSize, kRecordPieceSize));
    if (const std::uint32_t status = Commit(transaction, "write " + path); Failed(status)) {
      return status;
    }
  }
  // The header comes last: with it the list is complete, and the pieces of an older one go.
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch)
      .Set(variable.path,
           RecordHeader(RecordState::kReady, variable.blockNum, variable.pieces, variable.list) +
               body.substr(0, kRecordPieceSize));
  for (std::uint32_t i = 1; i < oldPieces; ++i) {
    transaction.Delete(PiecePath(variable.path, oldList, i));
  }
  return Commit(transaction, "write the blocks of " + variable.path);
}

std::uint32_t MetadataStore::TellNodes(Transaction& transaction, ReclaimEntry entry, std::uint32_t owner,
                                       bool& ownerTold, std::vector<std::string>* entries) {
  std::vector<std::string> nodes;
  if (const int result = zookeeper::Children(kReclaimPath, nodes); result != ZOK) {
    return StoreFailure(result, "list the nodes");
  }
  ownerTold = false;
  for (const std::string& node : nodes) {
    entry.owner = node == std::to_string(owner);
    ownerTold = ownerTold || entry.owner;
    const std::string path = std::string(kReclaimPath) + "/" + node + "/" + Unique();
    transaction.Create(path, entry.ToText());
    if (entries != nullptr) {
      entries->push_back(path);
    }
  }
  return VYN_OK;
}

void MetadataStore::AwaitForgotten(const std::vector<std::string>& entries) {
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  const auto end = common::SteadyNow() + kForgetLimit;
  for (const std::string& path : entries) {
    // A node without its session forgets all before the next one.
    const std::size_t begin = std::strlen(kReclaimPath) + 1;
    const std::string node = path.substr(begin, path.find('/', begin) - begin);
    while (adapter != nullptr && zookeeper::Exists(path) != ZNONODE &&
           zookeeper::Exists(adapter->mNodePath + "/" + node) != ZNONODE) {
      if (common::SteadyNow() > end) {
        VYN_LOG_WARN("Node " << node << " has not taken " << path << " yet, it is not waited for any longer");
        return;
      }
      common::SleepFor(kForgetPause);
    }
  }
}

std::uint32_t MetadataStore::IsRegistered(const std::string& application, bool& registered) {
  std::string text;
  const std::string path = AppPath(application);
  const int result = zookeeper::Get(path, text);
  registered = result == ZOK && !Flag(nlohmann::json::parse(text, nullptr, false), kRemovedFlag);
  return result == ZOK || result == ZNONODE ? VYN_OK : StoreFailure(result, "read " + path);
}

std::uint32_t MetadataStore::RemoveVariable(const std::string& application, const Variable& variable,
                                            std::vector<std::string>& entries) {
  if (!variable.ready) {
    // Nobody holds blocks of it. Pieces of a list that was never completed go with it.
    return DeleteRecords(variable.path);
  }
  // The record stays, marked, until its node has freed the blocks that it lists: the header alone is read
  // again, so the first piece has to stay behind it.
  std::string text;
  if (const int result = zookeeper::Get(variable.path, text); result == ZNONODE) {
    return VYN_OK;  // somebody has taken the record away
  } else if (result != ZOK) {
    return StoreFailure(result, "read " + variable.path);
  }
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch)
      .Set(variable.path,
           RecordHeader(RecordState::kDeleted, variable.blockNum, variable.pieces, variable.list) +
               RecordBody(text));
  bool ownerTold = false;
  const ReclaimEntry entry{application, variable.path, variable.id, false};
  if (const std::uint32_t status = TellNodes(transaction, entry, variable.nodeId, ownerTold, &entries);
      Failed(status)) {
    return status;
  }
  const std::uint32_t status = Commit(transaction, "delete variable " + variable.path);
  if (Failed(status) || ownerTold) {
    return status;
  }
  // The blocks are said to lie on a node that has never been seen: nobody will take the record away.
  return DeleteRecords(variable.path);
}

std::uint32_t MetadataStore::RemoveApplication(const std::string& application) {
  // In one step the application is marked and every node is told; then the records go. A leader that ends in
  // between leaves the mark, by which its successor completes the removal; until then nobody can register the
  // name anew.
  const std::string path = AppPath(application);
  int present = ZOK;
  int result = ZNODEEXISTS;
  for (int attempt = 0; result == ZNODEEXISTS && attempt < kDeleteAttempts; ++attempt) {
    Transaction transaction;
    transaction.Check(kEpochPath, mEpoch);
    present = zookeeper::Exists(path);
    if (present == ZOK) {
      transaction.Set(path, nlohmann::json{{kRemovedFlag, true}}.dump());
    } else if (present == ZNONODE) {
      // Nodes may hold a namespace of it all the same. One that registers at this moment must not lose what
      // it has just got: then this fails.
      transaction.Create(path, "").Delete(path);
    } else {
      return StoreFailure(present, "look at " + path);
    }
    bool ownerTold = false;
    if (const std::uint32_t status =
            TellNodes(transaction, ReclaimEntry{application, "", 0, false}, 0, ownerTold);
        Failed(status)) {
      return status;
    }
    result = transaction.Commit();
  }
  if (result != ZOK) {
    return StatusOf(result, "remove application " + application);
  }
  // A removal that stops here is completed by the next leadership, which reads the mark; this one must not
  // serve the application any more.
  return present == ZOK && Failed(DeleteRecords(path)) ? End() : VYN_OK;
}

std::uint32_t MetadataStore::DeleteRecords(const std::string& path) {
  // Again when something was made below it meanwhile, as a registration may.
  std::uint32_t status = kStatusStore;
  for (int attempt = 0; attempt < kDeleteAttempts; ++attempt) {
    bool grown = false;
    status = DeleteRecordsOnce(path, grown);
    if (!grown) {
      break;
    }
  }
  return status;
}

std::uint32_t MetadataStore::DeleteRecordsOnce(const std::string& path, bool& grown) {
  // Batch by batch under the epoch, children first: a successor may already have made an application of this
  // name anew.
  std::vector<std::string> children;
  const int listed = zookeeper::Children(path, children);
  if (listed == ZNONODE) {
    return VYN_OK;
  }
  if (listed != ZOK) {
    return StoreFailure(listed, "list " + path);
  }
  for (std::size_t begin = 0; begin < children.size(); begin += kDeleteBatch) {
    Transaction transaction;
    transaction.Check(kEpochPath, mEpoch);
    for (std::size_t i = begin; i < std::min(begin + kDeleteBatch, children.size()); ++i) {
      transaction.Delete(path + "/" + children[i]);
    }
    const int result = transaction.Commit();
    if (result == ZNOTEMPTY || result == ZNONODE) {
      // One has pieces below it, or its node has deleted it meanwhile: one by one.
      for (std::size_t i = begin; i < std::min(begin + kDeleteBatch, children.size()); ++i) {
        if (const std::uint32_t status = DeleteRecords(path + "/" + children[i]); Failed(status)) {
          return status;
        }
      }
    } else if (result != ZOK) {
      return StatusOf(result, "delete records below " + path);
    }
  }
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch).Delete(path);
  const int result = transaction.Commit();
  if (result == ZOK || result == ZNONODE) {
    return VYN_OK;
  }
  grown = result == ZNOTEMPTY;
  return StatusOf(result, "delete " + path);
}

}  // namespace vyn::services
