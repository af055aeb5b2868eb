#pragma once

// This process's ZooKeeper session, and the operations on the cluster's tree. A process has one adapter and
// one session.
//
// A driver reads the metadata leader's address and watches it. vynd elects the leader and keeps the status
// tree. The services also read and write znodes on the same session without the adapter
// (services/common/zookeeper_io.h). The sources are split by topic: cluster_zkadapter.cpp (the session),
// leader_record.cpp, status_tree.cpp, status_watch.cpp, fabric_nodes.cpp, election.cpp.
//
// An operation returns 0, 1 after a failure, 2000057 without a session or without a MetaNodeInfo that it
// needs, or a further code that its comment names. The log names the cause with ZooKeeper's error text.
//
// Any thread may call any operation. An operation holds mZKHandleLock from start to end unless its comment
// says otherwise; GetInstance and GetVynLibPath do not take it. The session calls watchers on a thread of its
// own, one at a time; they take mZKHandleLock, too. Lock order: mZKHandleLock, then a lock of MetaNodeInfo.

#include "cluster/meta_node_info.h"
#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

struct _zhandle;
typedef struct _zhandle zhandle_t;
struct String_vector;

namespace vyn::common {
class Configuration;
}

namespace vyn::cluster {

using common::MetaNodeInfo;
using common::MetaNodeStatus;
using common::Ref;

enum NodeRole : std::uint32_t {
  NODE_ROLE_SDK = 0,     ///< a driver or an executor
  NODE_ROLE_SERVER = 1,  ///< vynd
};

/// What ZooKeeper holds about one node of the memory fabric.
struct NodeInfo {
  std::uint32_t nodeId = 0;
  std::string ip;
  std::uint32_t auxValue = 0;  ///< the node's link port
  std::string hostName;
  std::uint32_t exists = 0;        ///< 1 when the record was found, 0 when there is no such node
  std::uint64_t capacityA = 0;     ///< size of the node's pool in bytes
  std::uint64_t capacityB = 0;     ///< free bytes of the pool
  std::uint64_t capacityTime = 0;  ///< Unix time of the two figures, in seconds
  std::string capacityTimeText;    ///< capacityTime as local time
};

class ClusterZKAdapter : public common::Referable {
 public:
  /// Ends the session.
  ~ClusterZKAdapter() override;

  // --- the session (cluster_zkadapter.cpp) -----------------------------------------------------------------
  /// Returns: the process's adapter. The first call makes it with its `role`; later roles have no effect.
  /// Null only without memory.
  static Ref<ClusterZKAdapter> GetInstance(NodeRole role);
  /// Opens the session that the configuration describes. Does nothing while there is one.
  /// \param sessionTimeout in milliseconds.
  std::uint32_t ClusterZKAdapterInit(int sessionTimeout);
  /// Returns: the real path of the installation's lib/common, which holds the companion libraries; empty
  /// after a failure.
  static std::string GetVynLibPath();
  /// Creates the persistent znodes of the election. Leaves existing ones alone.
  std::uint32_t ClusterZKMakeDir() const;
  /// Checks whether the session is usable. Returns: 0; 2000047, 2000049 or 2000051 when the caller may try
  /// again later; 2000053 when the session has expired and the caller must call ClusterZKClose and
  /// ClusterZKAdapterInit; 2000055 otherwise.
  std::uint32_t ClusterZKCheckAvailable() const;
  /// Whether there is a session and ZooKeeper has ended it. Asks only the memory of the ZooKeeper client, and
  /// takes no lock: a process that is cut off from ZooKeeper learns of the end when it is connected again.
  bool SessionHasEnded() const;
  /// Ends the session. Releases mZKHandleLock before it closes the client.
  std::uint32_t ClusterZKClose() const;

  // --- the leader (leader_record.cpp) ----------------------------------------------------------------------
  /// Copies the leader znode's content into metaNode->mLeaderAddress. A failure changes nothing.
  static std::uint32_t ZKGetAndUpdateMetaLeaderInfo(const Ref<MetaNodeInfo>& metaNode);
  /// Watches the leader znode, then reads the leader. Unless `leaderOnly`, also watches the followers and
  /// each status. Returns: 0; 2000047, 2000049, 2000053 or 2000055 when the leader watch could not be set,
  /// for example without a leader; 1 when the followers could not be watched or the statuses not listed. A
  /// status watch that fails is only logged.
  static std::uint32_t ZKRegisterWatcher(bool leaderOnly);
  static void MetaNodeLeaderWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);

  // --- the status tree (status_tree.cpp, status_watch.cpp) -------------------------------------------------
  /// Creates "/meta/status" and one child for each key of `nodes`, with status 1 whatever the map's value is.
  static std::uint32_t ZKCreateStatus(std::map<std::string, MetaNodeStatus>& nodes);
  /// Deletes the status tree and creates it again for the keys of metaNode->mNodeStatusMap.
  static std::uint32_t ZKClearAndCreateStatusDynamic(const Ref<MetaNodeInfo>& metaNode);
  static std::uint32_t ZKClearAllStatusNode();
  /// The caller frees `children` with DoDlDeallocateStringVector, also after a failure.
  static std::uint32_t ZKGetAllStatusNode(String_vector& children);
  static std::uint32_t ZKSetStatus(const std::string& node, MetaNodeStatus status);
  static std::uint32_t ZKGetNodeWithStatusList(std::vector<std::pair<std::string, MetaNodeStatus>>& list);
  /// Updates MetaNodeInfo: the leader's address from ZooKeeper, and then either the whole status map from
  /// ZooKeeper (`refreshAll`) or the entry of `node` with `status`, unless that is 0.
  static std::uint32_t ZKUpdateMemoryInformation(const std::string& node, MetaNodeStatus status,
                                                 bool refreshAll);
  /// Writes the status broken for every node whose status is alive, that is not the leader and that
  /// `followers` does not list. Frees `followers`.
  static std::uint32_t ZKCheckAndMarkFollowerBroken(const Ref<MetaNodeInfo>& metaNode,
                                                    String_vector& followers);
  static void MetaNodeFollowerWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);
  static void MetaNodeStatusWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);
  /// Splits `list` at `separator` and enters each piece into `nodes` with status 1. Appends `separator` to
  /// `list`. Needs no session and takes no lock.
  static std::uint32_t PutMetaIntoContainer(std::string& list, const std::string& separator,
                                            std::map<std::string, MetaNodeStatus>& nodes);

  // --- the nodes of the memory fabric (fabric_nodes.cpp) ---------------------------------------------------
  /// Formats a Unix time as local time. Needs no session and takes no lock.
  static std::uint32_t ConvertTimestamp(unsigned long seconds, std::string& text);
  /// Adds the ids of all nodes to `nodes`. Takes no lock. After a failure `nodes` may hold some of them.
  std::uint32_t ClusterZKGetNodeList(std::set<unsigned int>& nodes);
  /// Reads one node's record. Returns: 0; 2000045, with `exists` 0, when there is none; 2000049 when it could
  /// not be read.
  std::uint32_t ClusterZKGetNodeInfo(unsigned int nodeId, NodeInfo& info) const;
  /// Reads the size, free bytes and time of one node's pool.
  std::uint32_t ClusterZKGetMemInfo(unsigned int nodeId, NodeInfo& info) const;

  // --- the election (election.cpp) -------------------------------------------------------------------------
  /// One attempt to become the leader. An attempt that timed out is no failure: it gives 0 and `isLeader`
  /// false.
  static std::uint32_t ZKTryBecomeMetaElectionLeader(const Ref<MetaNodeInfo>& metaNode, bool& isLeader);
  /// Deletes the leader znode. Returns: 1 also when it was gone already.
  static std::uint32_t ZKTryDeleteMetaElectionLeader();
  /// Announces this node as follower.
  static std::uint32_t ZKCreateMetaElectionFollower(const Ref<MetaNodeInfo>& metaNode);
  /// Removes a follower znode by its full path. A failure is only logged.
  static std::uint32_t ZKTryDeleteMetaElectionFollower(const std::string& path);
  /// One attempt to become the leader, and the change of role that follows. Must not run while this node's
  /// own leader znode exists: the attempt would fail, and the leader would make itself a follower.
  static std::uint32_t ZKElectionOperate(Ref<MetaNodeInfo>& metaNode);
  /// Creates the znode "/meta/mutex", which at most one session owns. Waits up to 300 seconds for it with
  /// mZKHandleLock held, so that no watcher can run: call it before ZKRegisterWatcher.
  static std::uint32_t ZKWaitAndCreateMetaMutex();
  static std::uint32_t ZKReleaseMetaMutex();

  Ref<common::Configuration> mConf;
  const NodeRole mRole;
  const std::string mRootPath = "/";
  const std::string mNodePath = "/mf/node";
  const std::string mCapacityPath = "/mf/capacity";

  static Ref<ClusterZKAdapter> mInstance VYN_GUARDED_BY(mInstanceLock);
  static sync::Mutex mInstanceLock;
  /// Guards the session's handle and every operation that uses it.
  static sync::RecursiveMutex mZKHandleLock;
  /// Watchers return at once while this is false. vynd clears it when it shuts down.
  static std::atomic<bool> isRunning;

  // The paths of the tree. Never destroyed: in a driver a watcher may still run while the process exits.
  static const std::string& mMetaPath;
  static const std::string& mMetaElectionPath;
  static const std::string& mMetaLeaderPath;
  static const std::string& mMetaFollowerPath;
  static const std::string& mMetaStatusPath;
  static const std::string& mMetaMutexPath;

 private:
  explicit ClusterZKAdapter(NodeRole role);
};

}  // namespace vyn::cluster
