#pragma once

// Frees the memory of deleted variables and ended applications. The metadata leader writes them to this
// node's reclaim list in ZooKeeper. The reclaimer processes the list when the daemon starts, when an
// application registers, and periodically on a thread of its own, which a watch of the list wakes. It forgets
// what all entries name before it frees the memory of the first one, and tells the leader so in each entry
// (ReclaimEntry::forgotten). An entry that fails stays in the list and stops no other. An entry is believed
// only when it names a variable of its own application. What this build cannot read, entry or record, it does
// not delete.
//
// GiveBack frees further objects on the same thread: those of calls whose replies did not reach the caller.
//
// One thread calls Start and Stop; any thread may call the other operations.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/sync/mutex.h"
#include "services/common/zookeeper_layout.h"

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <deque>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class Reclaimer {
 public:
  /// \param fabric must outlive the reclaimer.
  /// \param forget called for each entry before its memory is freed.
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
    kLater,    ///< failed; the next Drain retries it
    kUnfreed,  ///< forgotten, and its memory is still to be freed
    /// ZooKeeper did not answer. Drain ends; the next one retries this entry and the later ones.
    kUnanswered,
    /// This build cannot read the entry, or the record with the block ids. Entry and blocks stay until the
    /// application ends or a newer build reads them.
    kKept,
  };

  /// What one Drain knows of the list.
  struct Progress {
    std::string application;
    std::set<std::string> seen;       ///< entries that were forgotten, or failed
    std::deque<std::string> unfreed;  ///< those of them whose memory is still to be freed
    EntryResult outcome = EntryResult::kDone;
  };

  void FreeGivenBack();
  /// A watcher of the C client of ZooKeeper.
  static void WakeReclaimer(zhandle_t* handle, int type, int state, const char* path, void* reclaimer);
  /// Lists the entries. \param watched whether the next one wakes mTask.
  int List(std::vector<std::string>& names, bool watched);
  /// Forgets what the entries of `names` name. Notes the result, and what is still to be freed.
  void ForgetAll(const std::vector<std::string>& names, Progress& progress);
  /// Frees memory until a short time has passed, nothing is left, or ZooKeeper does not answer.
  void FreeSome(Progress& progress);
  static void Note(EntryResult outcome, const std::string& path, Progress& progress);
  EntryResult ForgetEntry(const std::string& path, const std::string& application);
  EntryResult FreeEntry(const std::string& path);
  /// Reads an entry, and deletes one that cannot be believed. Returns: kDone for an entry to process.
  EntryResult ReadEntry(const std::string& path, ReclaimEntry& entry, bool& gone) VYN_REQUIRES(mDraining);
  EntryResult FreeVariable(const ReclaimEntry& entry) VYN_REQUIRES(mDraining);

  const std::uint16_t mNodeId;
  fabric::FabricNode& mFabric;
  const std::function<void(const ReclaimEntry& entry)> mForget;
  /// Held while a thread processes an entry, so that no two threads process the same one.
  sync::Mutex mDraining;
  /// The records and entries that are kept and have been logged, so that each is logged once.
  std::set<std::string> mReportedKept VYN_GUARDED_BY(mDraining);
  sync::Mutex mMutex;
  /// The application and the object ids of each GiveBack.
  std::vector<std::pair<std::string, std::vector<std::string>>> mGivenBack VYN_GUARDED_BY(mMutex);
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
