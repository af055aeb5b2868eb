#pragma once

// Gives memory back that the metadata leader has freed: works this node's list in ZooKeeper off, at start
// before the node serves, when an application registers anew, and by a thread of its own. What could not be
// done stays in the list. Beside it, frees what this node made and nobody has learnt of.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "services/common/zookeeper_layout.h"

#include <cstdint>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace vyn::services {

class Reclaimer {
 public:
  /// \param fabric is the caller's and outlives the reclaimer. \param forget is told of every entry before
  ///        its memory goes, of a variable's only once.
  Reclaimer(std::uint16_t nodeId, fabric::FabricNode& fabric,
            std::function<void(const ReclaimEntry& entry)> forget);
  /// Stops.
  ~Reclaimer();
  Reclaimer(const Reclaimer&) = delete;
  Reclaimer& operator=(const Reclaimer&) = delete;

  void Start();
  /// Requires: the fabric runs, or nothing was given back since the thread last looked.
  void Stop();
  /// Frees the objects, by the thread. Any thread; waits for nothing.
  void GiveBack(const std::string& application, const std::vector<std::string>& bmIds);
  /// Works the list off now; with an application, only its entries. Any thread. Returns: whether nothing is
  /// left of it that could be done.
  bool Drain(const std::string& application = "");

 private:
  enum class Outcome {
    kDone,
    kLater,       ///< it could not be freed: again
    kUnanswered,  ///< ZooKeeper does not tell what it is: this and all that follow, again
    kKept,  ///< the blocks cannot be named: they stay until their application ends, and the entry with them
  };

  void FreeGivenBack();
  Outcome DrainEntry(const std::string& path, const std::string& application);
  Outcome Handle(const std::string& path, const ReclaimEntry& entry);
  Outcome FreeVariable(const ReclaimEntry& entry);

  const std::uint16_t mNodeId;
  fabric::FabricNode& mFabric;
  const std::function<void(const ReclaimEntry& entry)> mForget;
  /// Held while an entry is worked off, so that none is done twice at once.
  std::mutex mDraining;
  /// Entries of variables that are still in the list and of which mForget was told. Guarded by mDraining.
  std::set<std::string> mForgotten;
  /// Records of which it was told that they cannot be read. Guarded by mDraining.
  std::set<std::string> mTold;
  std::mutex mMutex;
  /// By application. Guarded by mMutex.
  std::vector<std::pair<std::string, std::vector<std::string>>> mGivenBack;
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
