// Operations on the stages, map tasks and workers of a shuffle.

#include "common/rpc/client_forms.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <new>

namespace vyn::tessel {

using common::BaseMessage;

namespace {

Ref<StageInfo> MakeStageInfo(const std::string& appId, unsigned int stageId) {
  Ref<StageInfo> request(new (std::nothrow) StageInfo);
  if (request != nullptr) {
    request->appId = appId;
    request->stageId = stageId;
  }
  return request;
}

}  // namespace

std::uint32_t ShuffleMetaRPCEngine::MapTaskStatusUpdate(Ref<MapTaskStatus>& status) {
  VYN_CHECK_POINTER(status);
  return Call(MAP_TASK_STATUS_UPDATE, status, BaseMessage::gNullPtr,
              "Rpc failed to send update map task status as ");
}

std::uint32_t ShuffleMetaRPCEngine::SetStageShuffleId(const std::string& appId, unsigned int stageId,
                                                      unsigned int shuffleId) {
  const Ref<ShuffleStage> request(new (std::nothrow) ShuffleStage);
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->stageId = stageId;
  request->shuffleId = shuffleId;
  return Call(STAGE_SHUFFLEID_SET, request, BaseMessage::gNullPtr,
              "Rpc failed to send set shuffle stage id as ");
}

std::uint32_t ShuffleMetaRPCEngine::MarkStageUseless(const std::string& appId,
                                                     std::vector<unsigned int>& children, bool flag,
                                                     Ref<ShuffleIdList>& response, unsigned int first,
                                                     unsigned int second) {
  const Ref<ShuffleStagesCompletedInfo> request(
      new (std::nothrow) ShuffleStagesCompletedInfo(appId, children, flag, first, second));
  VYN_CHECK_POINTER(request);
  return Call(STAGE_DAG_SET, request, response, "Rpc failed to send set dag as ");
}

std::uint32_t ShuffleMetaRPCEngine::MarkStageHasFailedTask(const std::string& appId, unsigned int stageId) {
  const auto request = MakeStageInfo(appId, stageId);
  VYN_CHECK_POINTER(request);
  VYN_LOG_DEBUG("send mark stage has failed task request for " << appId << " stageId " << stageId);
  return Call(MARK_STAGE_HAS_FAILED_TASK, request, BaseMessage::gNullPtr,
              "Failed to send rpc message MARK_STAGE_HAS_FAILED_TASK as ");
}

std::uint32_t ShuffleMetaRPCEngine::MarkStageAllTaskDone(const std::string& appId, unsigned int stageId) {
  const auto request = MakeStageInfo(appId, stageId);
  VYN_CHECK_POINTER(request);
  VYN_LOG_DEBUG("send mark stage all task done request for " << appId << " stageId " << stageId);
  return Call(MARK_STAGE_ALL_TASKS_DONE, request, BaseMessage::gNullPtr,
              "Failed to send rpc message MARK_STAGE_ALL_TASKS_DONE as ");
}

std::uint32_t ShuffleMetaRPCEngine::FindWorkerByNodeId(const std::string& appId, unsigned int nodeId,
                                                       std::string& hostName) {
  const Ref<MapTaskStatus> request(new (std::nothrow) MapTaskStatus);
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->nodeId = nodeId;
  const Ref<NodeInformation> response(new (std::nothrow) NodeInformation);
  VYN_CHECK_POINTER(response);
  const std::uint32_t status = SendAndWaitReply(FIND_WORKER, request, response);
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, "Rpc failed to send mark worker removed as " << status);
  hostName = response->hostName;
  VYN_LOG_INFO("Receive hostname of nodeId: " << nodeId << " is: " << hostName);
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::MarkWorkerRemoved(const std::string& appName,
                                                      unsigned short removedNodeId) {
  const Ref<WorkerRemovedNotification> request(new (std::nothrow) WorkerRemovedNotification);
  VYN_CHECK_POINTER(request);
  request->appName = appName;
  request->removedNodeId = removedNodeId;
  return Call(MARK_WORKER_REMOVED, request, BaseMessage::gNullPtr,
              "Rpc failed to send mark worker removed as ");
}

}  // namespace vyn::tessel
