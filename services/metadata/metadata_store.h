#pragma once

// Stores the applications and variables in ZooKeeper, so that the next leader serves what this one has
// acknowledged.
//
// A leadership begins with Open, which raises the version of /vyn/epoch. This version is a fencing token:
// every write is a transaction that checks it. The writes of a former leader that does not know of its
// successor therefore fail with kStatusLeadershipLost. After the first such failure the leader must not serve
// any more, because its memory may be outdated.
//
// After Open any thread may call any operation. The caller serialises the writes of one application.

#include "services/common/service_status.h"
#include "services/common/zookeeper_layout.h"
#include "services/metadata/variable.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

namespace zookeeper {
class Transaction;
}

class MetadataStore {
 public:
  /// Another leader has taken over, or ZooKeeper did not answer a write. In the second case memory and
  /// ZooKeeper may differ, and only a new Open can read the truth.
  static constexpr std::uint32_t kStatusLeadershipLost = kStatusNotLeading;

  /// Deleted variables, by application and number. The value holds the paths of the reclaim entries. The
  /// number is kAllVariables for an application that has ended.
  using Deletions = std::map<std::pair<std::string, std::int64_t>, std::vector<std::string>>;
  static constexpr std::int64_t kAllVariables = -1;

  /// Begins a leadership and reads all records. \param deletions receives the deleted variables that live
  /// nodes may still cache. \param asked receives a time after which ZooKeeper has answered a call; the lease
  /// counts from it.
  /// Returns: 0, or a status; then the leadership has not begun.
  std::uint32_t Open(std::map<std::string, Application>& applications, Deletions& deletions,
                     std::chrono::steady_clock::time_point* asked = nullptr);
  /// Whether a write has returned kStatusLeadershipLost. A thread that waited for that write must then
  /// neither write nor use what is in memory.
  bool LeadershipLost() const { return mLeadershipLost.load(std::memory_order_acquire); }

  /// Creates the application's record. Does nothing if it exists. Returns: 0 or a status, like all below.
  std::uint32_t AddApplication(const std::string& application);
  /// Records that the application sends heartbeats, so that this and later leaders remove it when they stop.
  std::uint32_t MarkHeartbeat(const std::string& application);
  /// Creates a variable without blocks. Fills `variable.path`.
  std::uint32_t AddVariable(const std::string& application, Variable& variable);
  /// Replaces the block list atomically. Fills `variable.pieces` and `variable.list`.
  std::uint32_t SetBlocks(const std::string& application, Variable& variable);
  /// Turns the record into a tombstone and adds a reclaim entry for every node: the owner has to free the
  /// blocks, the others have to drop the variable from their caches. \param entries receives the paths of
  /// these entries.
  std::uint32_t RemoveVariable(const std::string& application, const Variable& variable,
                               std::vector<std::string>& entries);
  /// Returns: the id of a live node that has not forgotten what its reclaim entry, one of the paths `entries`,
  /// names; empty if there is none.
  static std::string NodeThatRemembers(const std::vector<std::string>& entries);
  /// \param registered receives whether the application has a record and is not being removed. A registration
  /// at any node creates the record.
  std::uint32_t IsRegistered(const std::string& application, bool& registered);
  /// Deletes the application with all its variables and adds a reclaim entry for every node, which has to
  /// free the application's namespace. \param entries receives the paths of these entries.
  std::uint32_t RemoveApplication(const std::string& application, std::vector<std::string>& entries);

 private:
  /// Logs a failed read. Returns: its status.
  static std::uint32_t StoreFailure(int result, const std::string& what);
  /// Returns: the status for the result of a write. Calls LoseLeadership if necessary.
  std::uint32_t StatusOf(int result, const std::string& what);
  /// Sets mLeadershipLost. Returns: kStatusLeadershipLost.
  std::uint32_t LoseLeadership();
  std::uint32_t Commit(zookeeper::Transaction& transaction, const std::string& what);
  std::uint32_t RaiseEpoch();
  std::uint32_t LoadApplication(const std::string& name, Application& application);
  std::uint32_t LoadDeletions(Deletions& deletions);
  std::uint32_t LoadVariable(const std::string& path, Variable& variable, bool& deleted);
  /// Removes one of two records of the same variable. Keeps the one with blocks in `kept`, if there is one.
  std::uint32_t RemoveDuplicate(const std::string& application, Variable& kept, Variable& other);
  /// Adds `entry` to the reclaim list of every node; in the list of node `owner` with ReclaimEntry::owner
  /// set.
  /// \param ownerListed receives whether there is a list of that node. \param entries receives the paths.
  std::uint32_t AddReclaimEntries(zookeeper::Transaction& transaction, ReclaimEntry entry,
                                  std::uint32_t owner, bool& ownerListed,
                                  std::vector<std::string>* entries = nullptr);
  std::uint32_t DeleteRecords(const std::string& path);
  /// \param grown receives whether another process has created a child of `path` meanwhile.
  std::uint32_t DeleteRecordsOnce(const std::string& path, bool& grown);
  std::string Unique();

  /// Constant after Open.
  int mEpoch = 0;
  std::atomic<bool> mLeadershipLost{false};
  std::atomic<std::uint64_t> mCounter{0};
};

}  // namespace vyn::services
