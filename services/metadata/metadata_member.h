#pragma once

// Takes part in the election of the metadata leader, and runs the metadata service while this node leads.
//
// A thread of the member checks the leader znode several times a second and acts on what it finds:
//
//   there is no leader znode              take part in a round of the election
//   it belongs to this session            serve, also if the reply to its creation was lost
//   it belongs to another session         follow: create the follower znode, keep the status "alive"
//   this session has expired              stop serving, open a new session
//   ZooKeeper does not answer             serve until the lease has run out. After that the session may have
//                                         expired, and a successor would not see heartbeats that arrive here
//
// MetaNodeInfo holds the role and the leader's address for the whole process.
//
// One thread calls Start and Stop; any thread may call Leading and View. The members below mView belong to
// the member's thread while it runs, except mLeading.

#include "cluster/cluster_zkadapter.h"
#include "common/wait/periodic_task.h"
#include "services/metadata/metadata_service.h"
#include "services/metadata/nodes/fabric_view.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <set>
#include <string>

namespace vyn::services {

struct MetadataMemberOptions {
  /// The address at which clients reach the service; identifies this node in the election.
  std::string nodeAddress;
  /// The nodes that may lead, "address,address,...". A node that is not among them never leads.
  std::string nodeList;
  /// Milliseconds.
  int sessionTimeout = 30000;
  MetadataServiceOptions service;
};

class MetadataMember {
 public:
  explicit MetadataMember(MetadataMemberOptions options);
  /// Calls Stop.
  ~MetadataMember();
  MetadataMember(const MetadataMember&) = delete;
  MetadataMember& operator=(const MetadataMember&) = delete;

  /// Creates the persistent znodes and the status tree, then starts the thread. Requires: ClusterZKAdapter
  /// has a session. Returns: 0 or a status.
  std::uint32_t Start();
  /// Stops the thread, gives up the leadership and waits for the replies of running calls.
  void Stop();

  bool Leading() const { return mLeading.load(std::memory_order_acquire); }
  FabricView& View() { return mView; }

 private:
  /// Checks the leader znode once and acts on it.
  void Step();
  /// Opens a new session after the old one has expired.
  void KeepSession();
  /// Prepares a new session. Step repeats it until it has succeeded once.
  void PrepareSession();
  void BuildStatusTree();
  void Follow();
  void KeepOwnStatus();
  void RegisterWatches();
  /// Handles changes from before the watches were set, for which no event comes. Without it a node that went
  /// down while nobody led would stay "alive". Returns: whether all was read and marked.
  bool CatchUp();
  /// Requires: the leader znode is this session's.
  void BeginLeading();
  void EndLeading();
  /// The lease: half of the session time-out that ZooKeeper has granted, which may be shorter than the
  /// requested one. The session cannot have expired so soon after ZooKeeper's last answer. Returns: 0 without
  /// a session.
  std::chrono::milliseconds Lease() const;
  /// Deletes the leader znode if it belongs to this session.
  void GiveUpClaim();

  const MetadataMemberOptions mOptions;
  FabricView mView;
  common::Ref<cluster::ClusterZKAdapter> mAdapter;
  common::Ref<common::MetaNodeInfo> mRecord;
  bool mElectable = false;
  bool mPrepared = true;
  bool mWatching = false;  ///< whether the watches are set
  bool mCaughtUp = false;  ///< whether CatchUp has succeeded since
  /// The start of the last call that ZooKeeper answered in Step.
  std::chrono::steady_clock::time_point mLastAnswer;
  /// No election before this time, because this node won the last one and could not serve.
  std::chrono::steady_clock::time_point mNextClaim;
  std::unique_ptr<MetadataService> mService;
  std::atomic<bool> mLeading{false};
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
