#pragma once

// This node's part in the metadata service: takes part in the election and runs the service while it leads.
//
// One thread does it all. It looks at the leader znode several times a second and acts on what it sees:
//
//   nobody leads                          a round of the election
//   the leader znode is our own           serve (also when the reply to our claim was lost on the way)
//   another node leads                    follow: announce ourselves, keep our status, serve nothing
//   the session has expired               stop serving, connect again, begin anew
//   ZooKeeper does not answer             go on, but stop serving before the session can have expired: a
//                                         successor that this node cannot hear of would count the heartbeats
//                                         that arrive here as silence
//
// The role and the leader's address stand in MetaNodeInfo, as everywhere.

#include "cluster/cluster_zkadapter.h"
#include "common/wait/periodic_task.h"
#include "services/metadata/fabric_view.h"
#include "services/metadata/metadata_service.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace vyn::services {

struct MetadataMemberOptions {
  /// This node's identity: the address at which clients reach the service.
  std::string nodeAddress;
  /// The nodes that may lead, "address,address,...". A node that is not among them only follows.
  std::string nodeList;
  /// Milliseconds.
  int sessionTimeout = 30000;
  MetadataServiceOptions service;
  /// Called after every new session, with the leader watch set or not: ephemeral znodes of others have to be
  /// made again. Runs on the member's thread.
  std::function<void()> onNewSession;
};

class MetadataMember {
 public:
  explicit MetadataMember(MetadataMemberOptions options);
  /// Stops.
  ~MetadataMember();
  MetadataMember(const MetadataMember&) = delete;
  MetadataMember& operator=(const MetadataMember&) = delete;

  /// Requires: the adapter has a session. Makes the persistent tree and the status tree, starts the thread.
  /// Returns: 0 or a status.
  std::uint32_t Start();
  /// Gives the leadership up, ends the thread. Running calls answer first.
  void Stop();

  bool Leading() const { return mLeading.load(std::memory_order_acquire); }
  FabricView& View() { return mView; }

 private:
  /// One look at the leader znode, and what follows from it.
  void Step();
  void KeepSession();
  /// What a new session needs once; again until it succeeds.
  void PrepareSession();
  void BuildStatusTree();
  void Follow();
  void KeepOwnStatus();
  void RegisterWatches();
  /// What changed before the watches stood no event will tell: a node that went down while nobody led stays
  /// "alive". Returns: whether all of it was read and marked.
  bool CatchUp();
  /// Requires: the leader znode is this session's.
  void BeginLeading();
  void EndLeading();
  /// How long after its last answer ZooKeeper cannot have ended the session yet, which may have been granted
  /// for less than was asked for. 0 for one that has gone.
  std::chrono::milliseconds Lease() const;
  /// Deletes the leader znode if it is this session's.
  void GiveUpClaim();

  const MetadataMemberOptions mOptions;
  FabricView mView;
  common::Ref<cluster::ClusterZKAdapter> mAdapter;
  common::Ref<common::MetaNodeInfo> mRecord;
  bool mElectable = false;
  bool mPrepared = true;
  bool mWatching = false;  ///< the watches stand
  bool mCaughtUp = false;  ///< with what changed before they stood
  /// Of ZooKeeper, in Step.
  std::chrono::steady_clock::time_point mLastAnswer;
  /// Before it a claim is not tried again: serving failed.
  std::chrono::steady_clock::time_point mNextClaim;
  std::unique_ptr<MetadataService> mService;
  std::atomic<bool> mLeading{false};
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
