#pragma once

// Which nodes the memory fabric has, and how much room they have: what stands under /mf and /vyn/nodes, read
// again by a thread of its own, so that a request is answered from memory: every second while the metadata
// service answers from it, otherwise seldom, for every node of the cluster has a view and reads all the
// others. One reading is under way at a time, and who asks meanwhile shares what comes of it; after failures
// it is tried less and less often.

#include "cluster/cluster_zkadapter.h"
#include "common/util/ref.h"
#include "common/wait/periodic_task.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::services {

class FabricView {
 public:
  FabricView() = default;
  ~FabricView();
  FabricView(const FabricView&) = delete;
  FabricView& operator=(const FabricView&) = delete;

  /// Reads, then begins the thread.
  void Start();
  /// Ends the thread.
  void Stop();
  /// Whether the metadata service answers from it.
  void SetServing(bool serving);

  /// Reads now. Returns: whether ZooKeeper answered; the old view stays otherwise.
  bool Refresh();
  /// Reads now when the view is older than `age` and no failure stands in the way. Returns: whether there is
  /// a newer view.
  bool RefreshOlderThan(std::chrono::milliseconds age);

  /// Fills `node` with the live node of this id; looks again when the view does not show it.
  bool Find(std::uint32_t nodeId, cluster::NodeInfo& node);

  /// The live nodes, by id. capacityA is the size of a node's pool and capacityB what is free of it, both in
  /// bytes; auxValue is its link port.
  std::vector<cluster::NodeInfo> Live() const;
  /// Every node that ever belonged to the fabric: id and host name.
  std::map<std::uint32_t, std::string> Registered() const;

 private:
  struct Nodes {
    std::map<std::uint32_t, cluster::NodeInfo> live;
    std::map<std::uint32_t, std::string> registered;
  };
  static bool Read(Nodes& nodes);
  /// Until the thread reads again.
  std::chrono::nanoseconds Pause() const;

  mutable std::mutex mMutex;
  // Guarded by mMutex.
  Nodes mNodes;
  bool mServing = false;
  bool mReading = false;
  std::uint64_t mReadings = 0;                     ///< that have ended
  bool mLastAnswered = false;                      ///< the last of them succeeded
  unsigned int mFailures = 0;                      ///< in a row
  std::chrono::steady_clock::time_point mRead;     ///< when the view was begun to be read
  std::chrono::steady_clock::time_point mNextTry;  ///< after a failure
  std::condition_variable mChanged;
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
