#pragma once

// The metadata service of one leadership: listens at the node's address, serves requests from MetadataState,
// and removes applications whose heartbeats have stopped.
//
// An object serves one leadership, from Start to Stop. Requests that arrive before the records have been read
// wait for them, at most readyTimeout.
//
// One thread calls Start and Stop; any thread may call the other operations.

#include "common/util/clock.h"
#include "common/wait/periodic_task.h"
#include "platform/rpc/server/server.h"
#include "platform/sync/mutex.h"
#include "services/metadata/metadata_state.h"
#include "services/metadata/nodes/fabric_view.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vyn::services {

struct MetadataServiceOptions {
  std::string address;     ///< numeric; clients reach the leader here
  std::uint16_t port = 0;  ///< 0 picks a free one
  /// The leader removes an application this long after its last heartbeat. Applications that never sent one
  /// stay.
  std::chrono::milliseconds applicationTimeout{60000};
  /// After this leader has taken over, every application has at least this long until its first heartbeat
  /// must have arrived. It covers what a client may need to find a new leader: 30 s to open a ZooKeeper
  /// session, 5 s between two attempts to open it, 10 s in a call to a leader that hangs, 15 s until the next
  /// attempt.
  std::chrono::milliseconds findLeaderTime{60000};
  /// How long a request waits until a new leader has read the records.
  std::chrono::milliseconds readyTimeout{30000};
  /// Asks a node for the sizes of blocks: FabricNode::Sizes. The leader compares them with each block list
  /// before it writes the list. Null: nobody is asked.
  std::function<int(std::uint16_t nodeId, const std::string& application,
                    const std::vector<std::string>& bmIds, std::vector<std::uint64_t>& sizes)>
      sizesAtNode;
  ApplicationLimits limits;
  /// TLS and limits of the server. The service replaces mReport.
  rpc::ServerOptions server;
};

class MetadataService {
 public:
  /// \param view must outlive the service.
  MetadataService(MetadataServiceOptions options, FabricView& view);
  /// Calls Stop.
  ~MetadataService();
  MetadataService(const MetadataService&) = delete;
  MetadataService& operator=(const MetadataService&) = delete;

  /// Listens, then reads the records. \param lease how long after ZooKeeper's last answer no other node can
  /// lead.
  /// Returns: 0 or a status; nothing runs after a failure.
  std::uint32_t Start(std::chrono::milliseconds lease);
  /// Waits for the replies of running calls, then closes every connection.
  void Stop();
  /// Extends the lease. Until `time` no other node can lead, so memory is current. After it the service
  /// refuses requests: the process may have been suspended, and a successor may have changed the records
  /// meanwhile.
  void ServeUntil(std::chrono::steady_clock::time_point time) {
    mServeUntil.store(time, std::memory_order_release);
  }
  /// Whether a write has failed with kStatusLeadershipLost. The owner then has to stop the service.
  bool LeadershipLost() const { return mLeadershipLost.load(std::memory_order_acquire); }
  std::uint16_t Port() const { return mServer.Port(); }

 private:
  void RegisterOperations();
  void RegisterVariableOperations();
  void RegisterNodeOperations();
  bool HasLease() const { return common::SteadyNow() < mServeUntil.load(std::memory_order_acquire); }
  /// Waits until the records have been read. Returns: 0, or the status for the refusal.
  std::uint32_t AwaitReady();
  /// Runs `work` once the records have been read. Sets mLeadershipLost if it returns kStatusNotLeading.
  template <typename Work>
  std::uint32_t WhenReady(Work work);
  /// SelectNodes. If the result is empty, reads the view again, because a node may have just started.
  std::vector<cluster::NodeInfo> Select(const std::vector<std::string>& candidates, bool one);
  /// Checks a block list from outside: its form, and that its node has these blocks in these sizes. Removes
  /// the padding of the ids. Returns: 0 or the status for the refusal.
  std::uint32_t CheckBlocks(tessel::BroadcastBlockInfo& info);
  std::uint32_t CompareWithNode(const tessel::BroadcastBlockInfo& info);
  /// Checks for silent applications. Runs on the thread of mSilenceTask.
  void WatchSilence();
  void EndSilent();

  const MetadataServiceOptions mOptions;
  FabricView& mView;
  MetadataState mState;
  rpc::Server mServer;
  std::atomic<bool> mLeadershipLost{false};
  std::atomic<std::chrono::steady_clock::time_point> mServeUntil{};

  sync::Mutex mMutex;
  bool mReady VYN_GUARDED_BY(mMutex) = false;
  bool mStopping VYN_GUARDED_BY(mMutex) = false;
  sync::Condition mChanged;
  /// The time of the last WatchSilence that had the lease. Only the thread of mSilenceTask uses it once that
  /// runs.
  std::chrono::steady_clock::time_point mLastCheck;
  common::PeriodicTask mSilenceTask;
};

}  // namespace vyn::services
