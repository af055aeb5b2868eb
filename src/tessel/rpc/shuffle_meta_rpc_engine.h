#pragma once

// The typed client of the metadata service, which runs on the elected leader.
//
// Threads: after CreateInstance and Initialize, any number of threads may call the operations.
// cluster/leader/leader_rpc_engine.h says how the client follows the leader and what it retries: an operation
// makes at most 4 attempts, with 30 seconds of sleep between them. In an executor the client asks the node
// server for the leader after each failed attempt. A driver has no client of the node server: there the
// ZooKeeper watch updates MetaNodeInfo.
//
// Operations return 0; 2000013 for a refused argument, before anything is sent; 2000057 without memory or for
// a null request; 2060009 when the call failed, with its code in the log; other codes where an operation says
// so. Identifiers must pass InputRegularMatching. The caller provides the response objects; an operation
// fills them on success.

#include "cluster/leader/leader_rpc_engine.h"
#include "common/wait/periodic_task.h"
#include "platform/sync/mutex.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/bag_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/shuffle_blob.h"
#include "tessel/message/shuffle/stage_messages.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vyn::tessel {

struct ApplicationCall;

class ShuffleMetaRPCEngine : public cluster::LeaderRPCEngine {
 public:
  ShuffleMetaRPCEngine(long timeout, bool isSdk, const Ref<ShuffleServerRPCEngine>& serverEngine);
  ~ShuffleMetaRPCEngine() override = default;

  /// Makes a new instance, which replaces the process's instance. Does not connect. \param timeout
  /// milliseconds for every call. \param serverEngine the client that the new one asks for the leader; null
  /// in a driver. Returns: the instance; null without memory.
  static Ref<ShuffleMetaRPCEngine> CreateInstance(long timeout, bool isSdk,
                                                  Ref<ShuffleServerRPCEngine> serverEngine);
  /// Returns: the process's instance, which may be null. May run while another thread calls CreateInstance.
  static Ref<ShuffleMetaRPCEngine> GetInstance();

  /// Finds the leader, connects to it, and starts the thread that follows it. One thread at a time may call
  /// it. Returns: 0; 2000057 without a configuration; 1 without a
  /// MetaNodeInfo; the failure of ShuffleMetaLeaderInfoGet or of InitializeEnginePool, which returns 2060007
  /// when no connection could be made.
  std::uint32_t Initialize();
  /// Asks the node server for the leader and stores it in MetaNodeInfo. Does nothing in a driver, which has
  /// no client of the node server. Returns: 0; 2080009 when that client no longer exists; 1 when the node
  /// server did not answer.
  std::uint32_t ShuffleMetaLeaderInfoGet();
  /// One operation with the retry policy. \param response may hold null. \param limit, expected see
  /// SendWithRetry.
  std::uint32_t SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                 const Ref<common::BaseMessage>& response,
                                 std::chrono::milliseconds limit = {},
                                 common::ExpectedRefusals expected = {});
  /// Adds the security settings for the leader on host `metaHostname` to `conf`. An existing entry keeps its
  /// value.
  void GetSecurityConf(std::map<std::string, const std::string>& conf, const std::string& metaHostname);

  // Applications, broadcast variables and nodes.

  /// `content` may be any text. An attempt takes at most 10 seconds, whatever the client's time-out is: a
  /// leader that hangs must not keep the heartbeats from its successor.
  std::uint32_t HeartBeat(const std::string& appName, unsigned char processType,
                          const std::string& processName, const std::string& content, bool flag);
  /// Returns 1, too, when the call returns that.
  std::uint32_t AppRemove(const std::string& appId);
  std::uint32_t BroadcastVarNew(const Ref<BroadcastVar>& var);
  std::uint32_t BroadcastVarRemove(const Ref<BroadcastVar>& var);
  std::uint32_t BroadcastVarInfoGet(const Ref<BroadcastVar>& var, Ref<BroadcastBlockInfo>& info);
  std::uint32_t BroadcastVarInfoAdd(const Ref<BroadcastBlockInfo>& info);
  std::uint32_t BroadcastBlockInfoAdd(const Ref<BroadcastBlockInfo>& info);
  std::uint32_t BroadcastBlockInfoFetch(const Ref<BlockInfoRequest>& request, Ref<BlockBmInfo>& info);
  std::uint32_t BroadcastRemoteNodeInfoGet(const Ref<BroadcastRemoteNodeReq>& request,
                                           Ref<BroadcastRemoteNodeRsp>& response);
  /// Requires: `candidateNodes` of the request, this node's addresses, is not empty.
  std::uint32_t IsMfNode(const Ref<BroadcastRemoteNodeReq>& request, Ref<NodeIdResponse>& response);
  /// Adds "<host>-<capacityA>-<capacityB>" to `capacities` for each host.
  std::uint32_t GetMfCapacityList(const std::string& appId, std::vector<std::string>& capacities);
  std::uint32_t CheckValidApps(Ref<ShuffleApplicationIdList>& request,
                               Ref<ShuffleApplicationIdList>& response);
  /// Replaces `nodes`; empties it on failure.
  std::uint32_t GetUnavailableNodeList(const std::string& appId, std::vector<std::string>& nodes);

  // Shuffle bags and blobs. `number`, `kind` and `flag` go into the request's fields of that name.

  /// Returns 2060203, too, when the service answers that.
  std::uint32_t BagBatchNew(const Ref<ShuffleBagBatch>& batch);
  std::uint32_t BagBatchRemove(const Ref<ShuffleBagBatch>& batch);
  /// Sets `entry` to a new object and replaces `prefixesToClean`.
  std::uint32_t BagListGetBatch(const std::string& bagName, unsigned int number, unsigned char kind,
                                Ref<ShuffleBagIdEntry>& entry, std::vector<std::string>& prefixesToClean);
  /// Appends to `blobs` and replaces `nodes`. Logs its times while TimeCounter::timeCounterLevel is not 0.
  std::uint32_t BlobListUnderBagWithMapTaskInfo(const std::string& bagName, const Ref<ShuffleBlobList>& blobs,
                                                bool flag, bool& result, std::set<unsigned short>& nodes,
                                                unsigned int number);
  /// Both parts of every id must differ from 0.
  std::uint32_t BlobBatchRemove(const std::string& ns, const std::vector<Ref<ShuffleBlobId>>& blobIdList);
  /// Sets `states` to a new object. Returns 1, too, without memory for it, and 2000013 for a blob without an
  /// id or with a text that does not fit its record.
  std::uint32_t BlobBatchUpdate(const std::string& name, unsigned int number,
                                std::vector<Ref<ShuffleBlob>>& blobs, Ref<ShuffleBlobStateIndexList>& states);
  std::uint32_t CASBlobListState(Ref<BlobListCasRequest> request,
                                 Ref<ShuffleBlobStateIndexCASResultList> response);
  std::uint32_t BatchCASShuffleBlobStates(Ref<ShuffleBlobStateIndexCASList>& request,
                                          Ref<ShuffleBlobStateIndexCASResultList>& response);

  // Stages, tasks and workers.

  std::uint32_t MapTaskStatusUpdate(Ref<MapTaskStatus>& status);
  std::uint32_t SetStageShuffleId(const std::string& appId, unsigned int stageId, unsigned int shuffleId);
  /// Empties `children`, also on failure.
  std::uint32_t MarkStageUseless(const std::string& appId, std::vector<unsigned int>& children, bool flag,
                                 Ref<ShuffleIdList>& response, unsigned int first, unsigned int second);
  std::uint32_t MarkStageHasFailedTask(const std::string& appId, unsigned int stageId);
  std::uint32_t MarkStageAllTaskDone(const std::string& appId, unsigned int stageId);
  /// Sets `hostName` on success.
  std::uint32_t FindWorkerByNodeId(const std::string& appId, unsigned int nodeId, std::string& hostName);
  std::uint32_t MarkWorkerRemoved(const std::string& appName, unsigned short removedNodeId);

  /// The process's instance. CreateInstance and GetInstance use a lock for it; other code may read it only
  /// while CreateInstance cannot run. Never destroyed.
  static Ref<ShuffleMetaRPCEngine>& gShuffleMetaRPCEngine;

 private:
  /// SendAndWaitReply for most operations: logs `failure` with the status of a failed call. Returns: 0 or
  /// 2060009.
  std::uint32_t Call(short opcode, const Ref<common::BaseMessage>& request,
                     const Ref<common::BaseMessage>& response, const char* failure);
  /// The same for a request about one application, after a check of the request.
  template <typename Request>
  std::uint32_t Call(const ApplicationCall& call, const Ref<Request>& request,
                     const Ref<common::BaseMessage>& response);

  sync::Mutex mServerEngineMutex;
  Ref<ShuffleServerRPCEngine> mServerEngine VYN_GUARDED_BY(mServerEngineMutex);  ///< null in a driver
  common::PeriodicTask mFollow;  ///< calls EndCallsToOldLeader; the last member, so that it stops first
};

}  // namespace vyn::tessel
