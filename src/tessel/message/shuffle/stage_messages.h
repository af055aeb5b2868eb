#pragma once

// Messages about the stages of a job, its map tasks and lost workers. Values that only the service interprets
// have the names of the schema. common/message/base_message.h says how a message is used and on which
// threads.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vyn::tessel {

struct TStageInfo;
struct TShuffleStage;
struct TShuffleStageDAG;
struct TShuffleIdList;
struct TWorkerRemovedNotification;
struct TMapTaskStatus;
struct TTaskAttemptStatus;

class StageInfo : public common::Message<TStageInfo> {
 public:
  std::string appId;
  std::uint32_t stageId = 0;
  VYN_MESSAGE_FIELDS(appId, stageId)
};

class ShuffleStage : public common::Message<TShuffleStage> {
 public:
  std::string appId;
  std::uint32_t stageId = 0;
  std::uint32_t shuffleId = 0;  ///< the shuffle that the stage writes
  VYN_MESSAGE_FIELDS(appId, stageId, shuffleId)
};

/// Stages that are no longer needed.
class ShuffleStagesCompletedInfo : public common::Message<TShuffleStageDAG> {
 public:
  ShuffleStagesCompletedInfo() = default;
  /// Moves `stages` into children and leaves it empty.
  ShuffleStagesCompletedInfo(std::string application, std::vector<unsigned int>& stages, bool flag,
                             unsigned int first, unsigned int second)
      : appId(std::move(application)),
        children(std::move(stages)),
        dagFlag(flag),
        dagValue0(first),
        dagValue1(second) {
    stages.clear();
  }

  std::string appId;
  std::vector<std::uint32_t> children;  ///< the stages
  bool dagFlag = false;
  std::uint32_t dagValue0 = 0;
  std::uint32_t dagValue1 = 0;
  VYN_MESSAGE_FIELDS(appId, children, dagFlag, dagValue0, dagValue1)
};

/// The reply to ShuffleStagesCompletedInfo.
class ShuffleIdList : public common::Message<TShuffleIdList> {
 public:
  std::vector<std::uint32_t> ids;
  VYN_MESSAGE_FIELDS(ids)
};

class WorkerRemovedNotification : public common::Message<TWorkerRemovedNotification> {
 public:
  std::string appName;              ///< the application's id
  std::uint16_t removedNodeId = 0;  ///< the lost node
  VYN_MESSAGE_FIELDS(appName, removedNodeId)
};

/// The status of a map task. With `appId` and `nodeId` alone, a question about a worker.
class MapTaskStatus : public common::Message<TMapTaskStatus> {
 public:
  std::string appId;
  std::uint32_t taskValue0 = 0;
  std::uint32_t taskValue1 = 0;
  std::uint32_t taskValue2 = 0;
  std::uint32_t taskValue3 = 0;
  std::uint32_t taskValue4 = 0;
  std::uint8_t taskFlag = 0;
  std::uint32_t nodeId = 0;
  VYN_MESSAGE_FIELDS(appId, taskValue0, taskValue1, taskValue2, taskValue3, taskValue4, taskFlag, nodeId)
};

class TaskAttemptStatus : public common::Message<TTaskAttemptStatus> {
 public:
  std::uint32_t attemptValue0 = 0;
  std::uint32_t attemptValue1 = 0;
  std::uint32_t attemptValue2 = 0;
  std::uint32_t attemptValue3 = 0;
  std::uint8_t attemptFlag = 0;
  std::uint16_t attemptNode = 0;
  VYN_MESSAGE_FIELDS(attemptValue0, attemptValue1, attemptValue2, attemptValue3, attemptFlag, attemptNode)
};

}  // namespace vyn::tessel
