#pragma once

// The only door to ZooKeeper. One adapter and one session a process.
//
// The SDK in a driver reads who the metadata leader is and watches it; the node daemon elects the leader and
// keeps the status tree. The sources are split by topic: cluster_zkadapter.cpp (the session),
// leader_record.cpp, status_tree.cpp, status_watch.cpp, fabric_nodes.cpp, election.cpp.
//
// Results: 0; 1 for a failure; 2000057 when there is no session, or no MetaNodeInfo where one is needed;
// further codes where an operation names them. What failed stands in the log with ZooKeeper's own words.
//
// Threads: any. Every operation holds mZKHandleLock from start to end, unless it says otherwise; GetInstance and
// GetVynLibPath take none of the locks named here. Watchers run
// on a thread that the session has for them, one at a time, and take the same lock. Lock order:
// mZKHandleLock, then a lock of MetaNodeInfo.

#include "cluster/meta_node_info.h"
#include "common/util/ref.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <mutex>
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
  NODE_ROLE_SERVER = 1,  ///< the node daemon
};

/// What ZooKeeper holds about one node of the memory fabric.
struct NodeInfo {
  std::uint32_t nodeId = 0;
  std::string ip;
  std::uint32_t auxValue = 0;
  std::string hostName;
  std::uint32_t exists = 0;  ///< 1 when the record was found, 0 when there is no such node
  std::uint64_t capacityA = 0;
  std::uint64_t capacityB = 0;
  std::uint64_t capacityTime = 0;  ///< seconds since the epoch
  std::string capacityTimeText;
};

class ClusterZKAdapter : public common::Referable {
 public:
  /// Ends the session.
  ~ClusterZKAdapter() override;

  // --- the session (cluster_zkadapter.cpp) -----------------------------------------------------------------
  /// Returns: the process's adapter, made at the first call, whose `role` it keeps. Empty only without
  /// memory.
  static Ref<ClusterZKAdapter> GetInstance(NodeRole role);
  /// Connects as the configuration says. A no-op while there is a session. \param sessionTimeout in
  /// milliseconds.
  std::uint32_t ClusterZKAdapterInit(int sessionTimeout);
  /// Returns: the real path of the directory with the library's companions, or the empty text.
  static std::string GetVynLibPath();
  /// Makes the persistent part of the tree. What stands already is left alone.
  std::uint32_t ClusterZKMakeDir() const;
  /// Whether the session is usable. Returns: 0; 2000047, 2000049 or 2000051 when the caller may try again
  /// later; 2000053 when the session is gone and the caller must close and init again; 2000055 otherwise.
  std::uint32_t ClusterZKCheckAvailable() const;
  /// Ends the session. The session itself is ended outside mZKHandleLock.
  std::uint32_t ClusterZKClose() const;

  // --- the leader (leader_record.cpp) ----------------------------------------------------------------------
  /// Reads the leader znode into metaNode->mLeaderAddress, which a failure leaves alone.
  static std::uint32_t ZKGetAndUpdateMetaLeaderInfo(const Ref<MetaNodeInfo>& metaNode);
  /// Sets the leader watch and, unless `leaderOnly`, those of the followers and of the statuses. There must
  /// be a leader; it is read once the watch stands. Returns: 0; 2000047, 2000049, 2000053 or 2000055 when the
  /// leader watch could not be set; 1 when one of the others could not.
  static std::uint32_t ZKRegisterWatcher(bool leaderOnly);
  static void MetaNodeLeaderWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);

  // --- the status tree (status_tree.cpp, status_watch.cpp) -------------------------------------------------
  /// Makes "/meta/status" with one child a key, each with status 1 whatever the map says.
  static std::uint32_t ZKCreateStatus(std::map<std::string, MetaNodeStatus>& nodes);
  /// Empties the status tree and makes it anew from metaNode->mNodeStatusMap.
  static std::uint32_t ZKClearAndCreateStatusDynamic(const Ref<MetaNodeInfo>& metaNode);
  static std::uint32_t ZKClearAllStatusNode();
  /// The caller frees `children` with DoDlDeallocateStringVector, also after a failure.
  static std::uint32_t ZKGetAllStatusNode(String_vector& children);
  static std::uint32_t ZKSetStatus(const std::string& node, MetaNodeStatus status);
  static std::uint32_t ZKGetNodeWithStatusList(std::vector<std::pair<std::string, MetaNodeStatus>>& list);
  /// Brings MetaNodeInfo up to date: the leader, and either the whole map or (status not 0) the entry of
  /// `node`.
  static std::uint32_t ZKUpdateMemoryInformation(const std::string& node, MetaNodeStatus status,
                                                 bool refreshAll);
  /// Marks as broken every node that was alive, is not the leader and is missing from `followers`, which it
  /// frees.
  static std::uint32_t ZKCheckAndMarkFollowerBroken(const Ref<MetaNodeInfo>& metaNode,
                                                    String_vector& followers);
  static void MetaNodeFollowerWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);
  static void MetaNodeStatusWatchFunc(zhandle_t* zh, int type, int state, const char* path, void* context);
  /// Cuts `list`, to which it appends `separator`, into names, each with status 1. Needs no session and takes
  /// no lock.
  static std::uint32_t PutMetaIntoContainer(std::string& list, const std::string& separator,
                                            std::map<std::string, MetaNodeStatus>& nodes);

  // --- the nodes of the memory fabric (fabric_nodes.cpp) ---------------------------------------------------
  /// Formats a time in local time. Needs no session and takes no lock.
  static std::uint32_t ConvertTimestamp(unsigned long seconds, std::string& text);
  /// The ids of all nodes. Takes no lock. After a failure `nodes` may hold some of them.
  std::uint32_t ClusterZKGetNodeList(std::set<unsigned int>& nodes);
  /// One node's record. Returns: 0; 2000045, with `exists` 0, when there is none; 2000049 when it could not
  /// be read.
  std::uint32_t ClusterZKGetNodeInfo(unsigned int nodeId, NodeInfo& info) const;
  /// One node's capacity record.
  std::uint32_t ClusterZKGetMemInfo(unsigned int nodeId, NodeInfo& info) const;

  // --- the election (election.cpp) -------------------------------------------------------------------------
  /// One attempt to become the leader. An attempt that timed out counts as lost and is no failure.
  static std::uint32_t ZKTryBecomeMetaElectionLeader(const Ref<MetaNodeInfo>& metaNode, bool& isLeader);
  /// Gives the leadership up. Returns: 1 also when the leader znode had gone before.
  static std::uint32_t ZKTryDeleteMetaElectionLeader();
  /// Announces this node as follower.
  static std::uint32_t ZKCreateMetaElectionFollower(const Ref<MetaNodeInfo>& metaNode);
  /// Removes a follower znode by its full path. A failure is only logged.
  static std::uint32_t ZKTryDeleteMetaElectionFollower(const std::string& path);
  /// One round of the election with its change of role. Not to be run while this node's own leader znode
  /// stands: the attempt would be lost against itself.
  static std::uint32_t ZKElectionOperate(Ref<MetaNodeInfo>& metaNode);
  /// Takes the set-up mutex, waiting up to 300 seconds with mZKHandleLock held: run it before
  /// ZKRegisterWatcher.
  static std::uint32_t ZKWaitAndCreateMetaMutex();
  static std::uint32_t ZKReleaseMetaMutex();

  Ref<common::Configuration> mConf;
  const NodeRole mRole;
  const std::string mRootPath = "/";
  const std::string mNodePath = "/mf/node";
  const std::string mCapacityPath = "/mf/capacity";

  static Ref<ClusterZKAdapter> mInstance;
  /// Guards the creation of mInstance.
  static std::mutex mInstanceLock;
  /// Guards the session's handle and every operation that uses it.
  static std::recursive_mutex mZKHandleLock;
  /// Watchers do their work only while this is true. The daemon clears it when it shuts down.
  static std::atomic<bool> isRunning;

  // The paths of the tree. Never destroyed: in a driver a watcher may run until the very end of the process.
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
