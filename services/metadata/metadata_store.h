#pragma once

// Where the metadata service keeps what it has acknowledged: in ZooKeeper, so that the next leader serves the
// same.
//
// A leadership begins with Open, which raises the version of /vyn/epoch. Every write of the leadership is one
// transaction that checks this version, so a leader that has been deposed without knowing it cannot overwrite
// what its successor wrote: its writes give kStatusDeposed. The first such write ends the leadership for all,
// because what memory says of it may be wrong.
//
// Threads: any, after Open. The caller keeps the writes of one application in order.

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
  /// The leadership is over: another leader has taken over, or ZooKeeper did not say what became of a write,
  /// so that only reading everything anew can tell.
  static constexpr std::uint32_t kStatusDeposed = kStatusNotLeading;
  /// The most blocks that a variable can have: their list fits into one frame of a reply.
  static constexpr std::uint32_t kMaxBlocks = 500000;

  /// Deleted variables, by application and number, and what tells the nodes of each.
  using Deletions = std::map<std::pair<std::string, std::uint32_t>, std::vector<std::string>>;

  /// Begins a leadership and reads everything. \param deletions receives those that live nodes have not heard
  /// of yet. \param asked receives a late time after which ZooKeeper has answered. Returns: 0, or a status;
  /// the leadership has not begun then.
  std::uint32_t Open(std::map<std::string, Application>& applications, Deletions& deletions,
                     std::chrono::steady_clock::time_point* asked = nullptr);
  /// A write has given kStatusDeposed. Whoever waited behind it must neither write nor trust its memory.
  bool Over() const { return mOver.load(std::memory_order_acquire); }

  /// The application becomes known; one that exists is left alone. Returns: 0 or a status, like all below.
  std::uint32_t AddApplication(const std::string& application);
  /// Its silence counts from now on, also for the next leader.
  std::uint32_t MarkHeartbeat(const std::string& application);
  /// Makes a variable without blocks. Fills `variable.path`.
  std::uint32_t AddVariable(const std::string& application, Variable& variable);
  /// Writes the blocks, in place of those that were known: all or nothing. Fills `variable.pieces` and
  /// `variable.list`.
  std::uint32_t SetBlocks(const std::string& application, Variable& variable);
  /// The variable goes; its node is told to free the blocks, the others to forget it. \param entries receives
  /// what tells them, see AwaitForgotten.
  std::uint32_t RemoveVariable(const std::string& application, const Variable& variable,
                               std::vector<std::string>& entries);
  /// Waits until every live node has done what `entries` tell it, for a bounded time.
  void AwaitForgotten(const std::vector<std::string>& entries);
  /// \param registered receives whether the application has been registered at a node, or has a record here,
  /// and is not being removed.
  std::uint32_t IsRegistered(const std::string& application, bool& registered);
  /// The application goes with all its variables; every node is told to free what it holds of it.
  std::uint32_t RemoveApplication(const std::string& application);

 private:
  /// Logs a read that failed. Returns: the status for it.
  static std::uint32_t StoreFailure(int result, const std::string& what);
  /// The status for a write's result.
  std::uint32_t StatusOf(int result, const std::string& what);
  /// Returns: kStatusDeposed.
  std::uint32_t End();
  std::uint32_t Commit(zookeeper::Transaction& transaction, const std::string& what);
  std::uint32_t RaiseEpoch();
  std::uint32_t LoadApplication(const std::string& name, Application& application);
  std::uint32_t LoadDeletions(Deletions& deletions);
  std::uint32_t LoadVariable(const std::string& path, Variable& variable, bool& deleted);
  /// Of two records with one number one stays: that with blocks, if there is one.
  std::uint32_t Settle(const std::string& application, Variable& kept, Variable& other);
  /// Adds `entry` to the list of every node; the one of `owner` says so, and `ownerTold` whether there is
  /// one.
  std::uint32_t TellNodes(zookeeper::Transaction& transaction, ReclaimEntry entry, std::uint32_t owner,
                          bool& ownerTold, std::vector<std::string>* entries = nullptr);
  std::uint32_t DeleteRecords(const std::string& path);
  /// \param grown receives whether something was made below `path` meanwhile.
  std::uint32_t DeleteRecordsOnce(const std::string& path, bool& grown);
  std::string Unique();

  /// Constant after Open.
  int mEpoch = 0;
  std::atomic<bool> mOver{false};
  std::atomic<std::uint64_t> mCounter{0};
};

}  // namespace vyn::services
