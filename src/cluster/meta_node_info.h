#pragma once

// This process's record of the metadata leader and of the metadata nodes' statuses.
//
// Writers: ClusterZKAdapter (leader read, watches, election) and, in an executor, the functions that ask the
// node server for the leader. Readers: every client of a service on the leader.
//
// Threads: any. mLeaderLock guards the address, mNodeStatusLock the map. A thread that holds the adapter's
// mZKHandleLock may take them; a thread that holds one of them must not take mZKHandleLock. Each is held for
// one copy or one update only.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vyn::common {

/// The status of one metadata node. Its status znode holds the number as decimal text.
enum MetaNodeStatus : std::int32_t {
  META_NODE_STATUS_NONE = 0,    ///< no status: as an argument it leaves the map unchanged
  META_NODE_STATUS_INIT = 1,    ///< the node is configured; the first status of every znode
  META_NODE_STATUS_ALIVE = 2,   ///< the node runs as follower
  META_NODE_STATUS_BROKEN = 3,  ///< the node has gone
};

/// This process's role in the election. LOOKING ends with the first attempt and does not come back.
enum class MetaNodeRole : std::uint32_t { LOOKING = 0, LEADER = 1, FOLLOWER = 2 };

class MetaNodeInfo : public Referable {
 public:
  ~MetaNodeInfo() override = default;

  /// Returns: the process's record, which the first call makes. Null only without memory.
  static Ref<MetaNodeInfo> GetInstance();

  std::atomic<MetaNodeRole> mMetaNodeRole{MetaNodeRole::LOOKING};
  /// The leader znode's content as last read. Clients use it unchanged as the leader's address.
  std::string mLeaderAddress VYN_GUARDED_BY(mLeaderLock);
  /// This node's identity: the address at which clients reach it, the name of its follower and status znodes,
  /// and the content of the leader znode when it leads. vynd sets it before its election starts; it is
  /// constant afterwards.
  std::string mNodeAddress;
  std::map<std::string, MetaNodeStatus> mNodeStatusMap VYN_GUARDED_BY(mNodeStatusLock);
  sync::SharedMutex mLeaderLock;
  sync::SharedMutex mNodeStatusLock;
  /// The names of the configured metadata nodes. Used by vynd only.
  std::vector<std::string> mConfiguredNodes;

  /// Never destroyed: a watcher may still call GetInstance while statics are destroyed.
  static Ref<MetaNodeInfo>& metaInstance VYN_GUARDED_BY(mMutex);
  static sync::Mutex mMutex;
};

}  // namespace vyn::common
