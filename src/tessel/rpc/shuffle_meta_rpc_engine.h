#pragma once

// The typed client of the metadata service, which runs on whichever node is the elected leader.
//
// CreateInstance, Initialize, then any number of threads may call the operations. cluster/leader_rpc_engine.h
// tells how the client follows the leader and what it retries: an operation makes at most 4 attempts, with 30
// seconds of sleep between them. In an executor the leader is asked from the node's own server after each
// failed attempt; in a driver, which has no server client, MetaNodeInfo is kept current by the watch.
//
// Operations return 0; 2000013 when an argument was refused, and then nothing is sent; 2000057 without
// memory or for a null request; 2060009 when the call failed, with its code in the log; other codes where an
// operation says so.
// Identifiers must pass InputRegularMatching. Responses are the caller's objects, filled on success.

#include "cluster/leader_rpc_engine.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/bag_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/shuffle_blob.h"
#include "tessel/message/shuffle/stage_messages.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace vyn::tessel {

class ShuffleMetaRPCEngine : public cluster::LeaderRPCEngine {
 public:
  ShuffleMetaRPCEngine(long timeout, bool isSdk, const Ref<ShuffleServerRPCEngine>& serverEngine);
  ~ShuffleMetaRPCEngine() override = default;

  /// Makes a new instance and puts it in place of the process's; does not connect. \param timeout
  /// milliseconds for every call. \param serverEngine the client that is asked for the leader; null in a
  /// driver. Returns: it; null without memory.
  static Ref<ShuffleMetaRPCEngine> CreateInstance(long timeout, bool isSdk,
                                                  Ref<ShuffleServerRPCEngine> serverEngine);
  /// Returns: the process's instance, which may be null. Safe beside CreateInstance.
  static Ref<ShuffleMetaRPCEngine> GetInstance();

  /// Learns the leader and connects to it. Returns: 0; 2000057 without configuration; 1 without leader
  /// record; the failure of ShuffleMetaLeaderInfoGet or of InitializeEnginePool, which returns 2060007 when
  /// no connection could be made.
  std::uint32_t Initialize();
  /// Asks the node's server for the leader and stores it in MetaNodeInfo; without a server client does
  /// nothing. Returns: 0; 2080009 when there is no server client any more; 1 when it did not answer.
  std::uint32_t ShuffleMetaLeaderInfoGet();
  /// One operation with the retry policy. \param response may hold null.
  std::uint32_t SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                 const Ref<common::BaseMessage>& response);
  /// Fills `conf` with the security settings for the leader on host `metaHostname`. An entry that is there
  /// keeps its value.
  void GetSecurityConf(std::map<std::string, const std::string>& conf, const std::string& metaHostname);

  // Applications, broadcast variables and nodes.

  /// `content` may be any text.
  std::uint32_t HeartBeat(const std::string& appName, unsigned char processType,
                          const std::string& processName, const std::string& content, bool flag);
  /// Returns also 1, when that is the call's own result.
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
  /// Replaces `nodes`, on failure by nothing.
  std::uint32_t GetUnavailableNodeList(const std::string& appId, std::vector<std::string>& nodes);

  // Shuffle bags and blobs. `number`, `kind` and `flag` go into the request's fields of that name.

  /// Returns also 2060203, the server's own answer.
  std::uint32_t BagBatchNew(const Ref<ShuffleBagBatch>& batch);
  std::uint32_t BagBatchRemove(const Ref<ShuffleBagBatch>& batch);
  /// Fills `entry` with a new object and replaces `prefixesToClean`.
  std::uint32_t BagListGetBatch(const std::string& bagName, unsigned int number, unsigned char kind,
                                Ref<ShuffleBagIdEntry>& entry, std::vector<std::string>& prefixesToClean);
  /// Appends to `blobs`, replaces `nodes`. Logs a line of times while TimeCounter is on.
  std::uint32_t BlobListUnderBagWithMapTaskInfo(const std::string& bagName, const Ref<ShuffleBlobList>& blobs,
                                                bool flag, bool& result, std::set<unsigned short>& nodes,
                                                unsigned int number);
  /// Every id must have a bag id and an inner id other than 0.
  std::uint32_t BlobBatchRemove(const std::string& ns, const std::vector<Ref<ShuffleBlobId>>& blobIdList);
  /// Fills `states` with a new object. Returns also 1, when there is no memory for it, and 2000013 for a blob
  /// without identity or with a text that does not fit its record.
  std::uint32_t BlobBatchUpdate(const std::string& name, unsigned int number,
                                std::vector<Ref<ShuffleBlob>>& blobs, Ref<ShuffleBlobStateIndexList>& states);
  std::uint32_t CASBlobListState(Ref<BlobListCasRequest> request,
                                 Ref<ShuffleBlobStateIndexCASResultList> response);
  std::uint32_t BatchCASShuffleBlobStates(Ref<ShuffleBlobStateIndexCASList>& request,
                                          Ref<ShuffleBlobStateIndexCASResultList>& response);

  // Stages, tasks and workers.

  std::uint32_t MapTaskStatusUpdate(Ref<MapTaskStatus>& status);
  std::uint32_t SetStageShuffleId(const std::string& appId, unsigned int stageId, unsigned int shuffleId);
  /// Takes the list out of `children`, which is empty afterwards, also on failure.
  std::uint32_t MarkStageUseless(const std::string& appId, std::vector<unsigned int>& children, bool flag,
                                 Ref<ShuffleIdList>& response, unsigned int first, unsigned int second);
  std::uint32_t MarkStageHasFailedTask(const std::string& appId, unsigned int stageId);
  std::uint32_t MarkStageAllTaskDone(const std::string& appId, unsigned int stageId);
  /// Fills `hostName` on success.
  std::uint32_t FindWorkerByNodeId(const std::string& appId, unsigned int nodeId, std::string& hostName);
  std::uint32_t MarkWorkerRemoved(const std::string& appName, unsigned short removedNodeId);

  /// The last instance made. CreateInstance and GetInstance reach it under a lock of their own; read it
  /// directly only where CreateInstance cannot run. Never destroyed.
  static Ref<ShuffleMetaRPCEngine>& gShuffleMetaRPCEngine;

 private:
  std::mutex mServerEngineMutex;
  Ref<ShuffleServerRPCEngine> mServerEngine;  ///< guarded by mServerEngineMutex; null in a driver
};

}  // namespace vyn::tessel
