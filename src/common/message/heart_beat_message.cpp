#include "common/message/heart_beat_message.h"

#include "common/message/message_codec.h"
#include "schema/heart_beat_generated.h"

namespace vyn::common {

VYN_MESSAGE_CODEC(HeartBeatMessage, fbBuilder256)

}  // namespace vyn::common
