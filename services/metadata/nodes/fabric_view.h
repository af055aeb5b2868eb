#pragma once

// The nodes of the memory fabric and the free bytes of their pools, as ZooKeeper has them below /mf and
// /vyn/nodes. A thread of the view reads them periodically, so that requests are answered from memory. It
// reads every second while the metadata service runs on this node, otherwise every 10 seconds, because every
// node of the cluster has a view and reads the records of all others. After failures the pause grows.
//
// One thread reads at a time; a thread that calls Refresh meanwhile waits for its result. One thread calls
// Start and Stop; any thread may call the other operations.

#include "cluster/cluster_zkadapter.h"
#include "common/util/ref.h"
#include "common/wait/periodic_task.h"
#include "platform/sync/mutex.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vyn::services {

class FabricView {
 public:
  FabricView() = default;
  ~FabricView();
  FabricView(const FabricView&) = delete;
  FabricView& operator=(const FabricView&) = delete;

  /// Reads once, then starts the thread.
  void Start();
  /// Stops the thread.
  void Stop();
  /// Sets whether the metadata service runs on this node and uses the view.
  void SetServing(bool serving);

  /// Reads now. Returns: whether ZooKeeper answered. If not, the view is unchanged.
  bool Refresh();
  /// Reads now if the view is older than `age` and no pause after a failure runs. Returns: whether it has
  /// read.
  bool RefreshOlderThan(std::chrono::milliseconds age);

  /// Fills `node` with the live node of this id. Reads again if the view does not have it. Returns: whether
  /// it was found.
  bool Find(std::uint32_t nodeId, cluster::NodeInfo& node);

  /// The live nodes, sorted by id. capacityA is the size of a node's pool and capacityB its free bytes;
  /// auxValue is the link port.
  std::vector<cluster::NodeInfo> Live() const;
  /// Every node that ever belonged to the fabric: id and host name.
  std::map<std::uint32_t, std::string> Registered() const;

 private:
  struct Nodes {
    std::map<std::uint32_t, cluster::NodeInfo> live;
    std::map<std::uint32_t, std::string> registered;
  };
  static bool Read(Nodes& nodes);
  /// The time until the thread reads again.
  std::chrono::nanoseconds Pause() const;

  mutable sync::Mutex mMutex;
  Nodes mNodes VYN_GUARDED_BY(mMutex);
  bool mServing VYN_GUARDED_BY(mMutex) = false;
  bool mReading VYN_GUARDED_BY(mMutex) = false;
  std::uint64_t mReadings VYN_GUARDED_BY(mMutex) = 0;  ///< number of finished calls of Read
  bool mLastAnswered VYN_GUARDED_BY(mMutex) = false;   ///< whether the last of them succeeded
  unsigned int mFailures VYN_GUARDED_BY(mMutex) =
      0;  ///< failures since the last success, at most kMostFailures
  std::chrono::steady_clock::time_point mRead
      VYN_GUARDED_BY(mMutex);  ///< when the Read began that gave mNodes
  std::chrono::steady_clock::time_point mNextTry
      VYN_GUARDED_BY(mMutex);  ///< after a failure: no Read before this time
  sync::Condition mChanged;
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
