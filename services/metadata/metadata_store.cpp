#include "services/metadata/metadata_store.h"

#include "cluster/cluster_zkadapter.h"
#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "vyn/status.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace vyn::services {

namespace {

using zookeeper::Transaction;

/// The most records that one transaction deletes.
constexpr std::size_t kDeleteBatch = 100;
/// Attempts to delete a record below which other processes create records at the same time.
constexpr unsigned int kDeleteAttempts = 5;

/// Whether the node has forgotten what the reclaim entry at `path` names.
bool IsForgotten(const std::string& path) {
  std::string text;
  ReclaimEntry entry;
  const int result = zookeeper::Get(path, text);
  return result == ZNONODE || (result == ZOK && ReclaimEntry::FromText(text, entry) && entry.forgotten);
}

}  // namespace

std::string MetadataStore::Unique() {
  return std::to_string(mEpoch) + "-" + std::to_string(mCounter.fetch_add(1, std::memory_order_relaxed));
}

std::uint32_t MetadataStore::StoreFailure(int result, const std::string& what) {
  VYN_LOG_ERROR("Failed to " << what << ", zookeeper get error: " << zookeeper::ResultText(result));
  return zookeeper::IsUncertain(result) ? kStatusUnanswered : kStatusStore;
}

std::uint32_t MetadataStore::LoseLeadership() {
  mLeadershipLost.store(true, std::memory_order_release);
  return kStatusNotLeading;
}

std::uint32_t MetadataStore::StatusOf(int result, const std::string& what) {
  if (result == ZOK) {
    return VYN_OK;
  }
  if (result == ZBADVERSION) {
    VYN_LOG_WARN("Refused to " << what << ": another metadata leader has taken over from epoch " << mEpoch);
    return LoseLeadership();
  }
  const std::uint32_t status = StoreFailure(result, what);
  return zookeeper::IsUncertain(result) ? LoseLeadership() : status;
}

std::uint32_t MetadataStore::Commit(Transaction& transaction, const std::string& what) {
  return StatusOf(transaction.Commit(), what);
}

std::uint32_t MetadataStore::AddApplication(const std::string& application) {
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch).Create(AppPath(application), "{}");
  const int result = transaction.Commit();
  if (result == ZOK || result == ZNODEEXISTS) {
    return VYN_OK;  // FixToken on a node creates the record too
  }
  return StatusOf(result, "create application " + application);
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
      .Create(variable.path, RecordHeader(RecordState::kNew, variable.blockNum, 0, "", variable.writer));
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
  // Write the header last, in one transaction with the deletion of the old list's pieces. From then on
  // readers see the new list.
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

std::uint32_t MetadataStore::AddReclaimEntries(Transaction& transaction, ReclaimEntry entry,
                                               std::uint32_t owner, bool& ownerListed,
                                               std::vector<std::string>* entries) {
  std::vector<std::string> nodes;
  if (const int result = zookeeper::Children(kReclaimPath, nodes); result != ZOK) {
    return StoreFailure(result, "list the nodes");
  }
  ownerListed = false;
  for (const std::string& node : nodes) {
    entry.owner = node == std::to_string(owner);
    ownerListed = ownerListed || entry.owner;
    const std::string path = std::string(kReclaimPath) + "/" + node + "/" + Unique();
    transaction.Create(path, entry.ToText());
    if (entries != nullptr) {
      entries->push_back(path);
    }
  }
  return VYN_OK;
}

std::string MetadataStore::NodeThatRemembers(const std::vector<std::string>& entries) {
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  for (const std::string& path : entries) {
    const std::size_t begin = std::strlen(kReclaimPath) + 1;
    const std::string node = path.substr(begin, path.find('/', begin) - begin);
    // A node without a session does not answer from its cache, and drops it when it has a new one.
    if (adapter != nullptr && !IsForgotten(path) &&
        zookeeper::Exists(adapter->mNodePath + "/" + node) != ZNONODE) {
      return node;
    }
  }
  return "";
}

std::uint32_t MetadataStore::IsRegistered(const std::string& application, bool& registered) {
  std::string text;
  const std::string path = AppPath(application);
  const int result = zookeeper::Get(path, text);
  registered = result == ZOK && !FlagField(ParseJson(text), kRemovedFlag);
  return result == ZOK || result == ZNONODE ? VYN_OK : StoreFailure(result, "read " + path);
}

std::uint32_t MetadataStore::RemoveVariable(const std::string& application, const Variable& variable,
                                            std::vector<std::string>& entries) {
  if (!variable.ready) {
    // The variable has no blocks that a node must free. This also deletes the pieces of an incomplete list.
    return DeleteRecords(variable.path);
  }
  // The record stays as a tombstone until the owner has freed the blocks that it lists. This transaction
  // replaces the whole value, so it has to write the first piece again after the new header.
  std::string text;
  if (const int result = zookeeper::Get(variable.path, text); result == ZNONODE) {
    return VYN_OK;  // the record was deleted meanwhile
  } else if (result != ZOK) {
    return StoreFailure(result, "read " + variable.path);
  }
  Transaction transaction;
  transaction.Check(kEpochPath, mEpoch)
      .Set(variable.path,
           RecordHeader(RecordState::kDeleted, variable.blockNum, variable.pieces, variable.list) +
               RecordBody(text));
  bool ownerListed = false;
  const ReclaimEntry entry{application, variable.path, variable.id};
  if (const std::uint32_t status =
          AddReclaimEntries(transaction, entry, variable.nodeId, ownerListed, &entries);
      Failed(status)) {
    return status;
  }
  const std::uint32_t status = Commit(transaction, "delete variable " + variable.path);
  if (Failed(status) || ownerListed) {
    return status;
  }
  // No node of this id was ever registered, so no node would delete the tombstone.
  return DeleteRecords(variable.path);
}

std::uint32_t MetadataStore::RemoveApplication(const std::string& application,
                                               std::vector<std::string>& entries) {
  // One transaction marks the application as removed and adds a reclaim entry for every node. After it the
  // records are deleted. If this leader fails in between, its successor finds the mark and completes the
  // removal. Until then FixToken refuses the name.
  const std::string path = AppPath(application);
  int present = ZOK;
  int result = ZOK;
  auto retry = common::Retry::Times(kDeleteAttempts);
  do {
    Transaction transaction;
    transaction.Check(kEpochPath, mEpoch);
    present = zookeeper::Exists(path);
    if (present == ZOK) {
      transaction.Set(path, nlohmann::json{{kRemovedFlag, true}}.dump());
    } else if (present == ZNONODE) {
      // A node may hold a namespace of it nevertheless. Create and Delete let the transaction fail if the
      // application registers at this moment; otherwise the entries would destroy its new namespace.
      transaction.Create(path, "").Delete(path);
    } else {
      return StoreFailure(present, "read " + path);
    }
    bool ownerListed = false;
    entries.clear();
    if (const std::uint32_t status =
            AddReclaimEntries(transaction, ReclaimEntry{application, "", 0}, 0, ownerListed, &entries);
        Failed(status)) {
      return status;
    }
    result = transaction.Commit();
  } while (result == ZNODEEXISTS && retry.Again());
  if (result != ZOK) {
    return StatusOf(result, "remove application " + application);
  }
  // If the deletion fails, this leader must not serve the application any more, so it ends the leadership.
  // The next leader finds the mark and completes the removal.
  return present == ZOK && Failed(DeleteRecords(path)) ? LoseLeadership() : VYN_OK;
}

std::uint32_t MetadataStore::DeleteRecords(const std::string& path) {
  // Retry if another process has created a child meanwhile, as FixToken does.
  std::uint32_t status = kStatusStore;
  bool grown = false;
  auto retry = common::Retry::Times(kDeleteAttempts);
  do {
    grown = false;
    status = DeleteRecordsOnce(path, grown);
  } while (grown && retry.Again());
  return status;
}

std::uint32_t MetadataStore::DeleteRecordsOnce(const std::string& path, bool& grown) {
  // Delete the children in batches, then the record. Each transaction checks the epoch, because a successor
  // may already have created a new application of this name.
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
      // One of the batch has children, or its owner has deleted it meanwhile. So delete one at a time.
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
