#pragma once

// Which nodes the memory fabric has, and how much room they have: what stands under /mf and /vyn/nodes, read
// again every second by a thread of its own, so that a request is answered from memory.

#include "cluster/cluster_zkadapter.h"
#include "common/util/ref.h"

#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vyn::services {

class FabricView {
 public:
  FabricView() = default;
  ~FabricView();
  FabricView(const FabricView&) = delete;
  FabricView& operator=(const FabricView&) = delete;

  void Start();
  /// Ends the thread.
  void Stop();

  /// Reads now. Returns: whether ZooKeeper answered; the old view stays otherwise.
  bool Refresh();
  /// Reads now when the view is older than `age`, one reader at a time. Returns: whether there is a newer
  /// view.
  bool RefreshOlderThan(std::chrono::milliseconds age);

  /// The live nodes, by id. capacityA is the size of a node's pool and capacityB what is free of it, both in
  /// bytes; auxValue is its link port.
  std::vector<cluster::NodeInfo> Live() const;
  /// Every node that ever belonged to the fabric: id and host name.
  std::map<std::uint32_t, std::string> Registered() const;

 private:
  void Run();

  std::mutex mRefreshing;  ///< held by RefreshOlderThan, before mMutex
  mutable std::mutex mMutex;
  // Guarded by mMutex.
  std::map<std::uint32_t, cluster::NodeInfo> mLive;
  std::map<std::uint32_t, std::string> mRegistered;
  bool mStopping = false;
  std::chrono::steady_clock::time_point mRead;  ///< when the view was begun to be read
  std::condition_variable mWake;
  std::thread mThread;
};

}  // namespace vyn::services
