#pragma once

// Frees the memory of deleted variables and ended applications. The metadata leader writes them to this
// node's reclaim list in ZooKeeper. The reclaimer processes the list when the daemon starts, when an
// application registers, and periodically on a thread of its own. An entry that fails stays in the list and
// stops no other. An entry is believed only when it names a variable of its own application. What this build
// cannot read, entry or record, it does not delete.
//
// GiveBack frees further objects on the same thread: those of calls whose replies did not reach the caller.
//
// One thread calls Start and Stop; any thread may call the other operations.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/sync/mutex.h"
#include "services/common/zookeeper_layout.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class Reclaimer {
 public:
  /// \param fabric must outlive the reclaimer.
  /// \param forget called for each entry before its memory is freed; at most once for an entry of a variable.
  Reclaimer(std::uint16_t nodeId, fabric::FabricNode& fabric,
            std::function<void(const ReclaimEntry& entry)> forget);
  /// Calls Stop.
  ~Reclaimer();
  Reclaimer(const Reclaimer&) = delete;
  Reclaimer& operator=(const Reclaimer&) = delete;

  void Start();
  /// Stops the thread and frees the remaining objects of GiveBack. Requires: the fabric runs if there are
  /// any.
  void Stop();
  /// Lets the reclaimer's thread free the objects. Does not block.
  void GiveBack(const std::string& application, const std::vector<std::string>& bmIds);
  /// Processes the reclaim list now. \param application only its entries; empty for all. Returns: true if no
  /// entry is left except those that EntryResult::kKept describes.
  bool Drain(const std::string& application = "");

 private:
  enum class EntryResult {
    kDone,
    kLater,  ///< failed; the next Drain retries it
    /// ZooKeeper did not answer. Drain ends; the next one retries this entry and the later ones.
    kUnanswered,
    /// This build cannot read the entry, or the record with the block ids. Entry and blocks stay until the
    /// application ends or a newer build reads them.
    kKept,
  };

  void FreeGivenBack();
  EntryResult DrainEntry(const std::string& path, const std::string& application);
  EntryResult Handle(const std::string& path, const ReclaimEntry& entry) VYN_REQUIRES(mDraining);
  EntryResult FreeVariable(const ReclaimEntry& entry) VYN_REQUIRES(mDraining);

  const std::uint16_t mNodeId;
  fabric::FabricNode& mFabric;
  const std::function<void(const ReclaimEntry& entry)> mForget;
  /// Held while a thread processes an entry, so that no two threads process the same one.
  sync::Mutex mDraining;
  /// The entries of variables in the list for which mForget has been called.
  std::set<std::string> mNotifiedEntries VYN_GUARDED_BY(mDraining);
  /// The records and entries that are kept and have been logged, so that each is logged once.
  std::set<std::string> mReportedKept VYN_GUARDED_BY(mDraining);
  sync::Mutex mMutex;
  /// The application and the object ids of each GiveBack.
  std::vector<std::pair<std::string, std::vector<std::string>>> mGivenBack VYN_GUARDED_BY(mMutex);
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
