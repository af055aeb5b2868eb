#include "tessel/message/shuffle/stage_messages.h"

#include "common/message/message_codec.h"
#include "schema/stage_generated.h"

namespace vyn::tessel {

VYN_MESSAGE_CODEC(StageInfo, fbBuilder256)
VYN_MESSAGE_CODEC(ShuffleStage, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleStagesCompletedInfo, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleIdList, fbBuilder128)
VYN_MESSAGE_CODEC(WorkerRemovedNotification, fbBuilder256)
VYN_MESSAGE_CODEC(MapTaskStatus, fbBuilder128)
VYN_MESSAGE_CODEC(TaskAttemptStatus, fbBuilder256)

}  // namespace vyn::tessel
