#pragma once

// The one record of who the metadata leader is.
//
// It is written from ZooKeeper (the leader read, the leader watch, the election) and, where the node server
// was asked for the leader, by whoever asked. Everyone who talks to the leader reads it here.
//
// Threads: any. The address and the map have a lock each; both locks stand inside the adapter's
// mZKHandleLock, never the other way round, and are held for one copy or one update only.

#include "common/util/ref.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <vector>

namespace vyn::common {

/// What the cluster knows about one metadata node. Stands in its status znode as decimal text.
enum MetaNodeStatus : std::int32_t {
  META_NODE_STATUS_NONE = 0,    ///< no status: as an argument it leaves the map unchanged
  META_NODE_STATUS_INIT = 1,    ///< the node is configured; every status znode starts so
  META_NODE_STATUS_ALIVE = 2,   ///< the node runs as follower
  META_NODE_STATUS_BROKEN = 3,  ///< the node has gone
};

/// The part that this process plays in the election. LOOKING is left for good at the first round.
enum class MetaNodeRole : std::uint32_t { LOOKING = 0, LEADER = 1, FOLLOWER = 2 };

class MetaNodeInfo : public Referable {
 public:
  ~MetaNodeInfo() override = default;

  /// The record of the process, made at the first call. Empty only when there was no memory for it.
  static Ref<MetaNodeInfo> GetInstance();

  std::atomic<MetaNodeRole> mMetaNodeRole{MetaNodeRole::LOOKING};
  /// The content of the leader znode as last seen; clients use it whole as the peer's address. Guarded by
  /// mLeaderLock.
  std::string mLeaderAddress;
  /// This node's identity: the address at which clients reach it, the name of its follower and status znodes,
  /// and the content of the leader znode when it wins. Set by the daemon before its election starts, constant
  /// afterwards.
  std::string mNodeAddress;
  /// Guarded by mNodeStatusLock.
  std::map<std::string, MetaNodeStatus> mNodeStatusMap;
  std::shared_mutex mLeaderLock;
  std::shared_mutex mNodeStatusLock;
  /// Filled and read by the daemon alone.
  std::vector<std::string> mConfiguredNodes;

  /// Lives until the process has ended: a watcher may still ask for it while statics are being destroyed.
  static Ref<MetaNodeInfo>& metaInstance;
  /// Guards the creation of metaInstance.
  static std::mutex mMutex;
};

}  // namespace vyn::common
