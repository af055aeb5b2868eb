#include "tessel/message/shuffle/bag_messages.h"

#include "common/message/message_codec.h"
#include "schema/bag_generated.h"

namespace vyn::tessel {

VYN_MESSAGE_CODEC(ShuffleBag, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleBagBatch, fbBuilder256)
VYN_MESSAGE_CODEC(ShuffleBagInfoGetRequest, fbBuilder128)
VYN_MESSAGE_CODEC(ShuffleBagIdEntry, fbBuilder256)
VYN_MESSAGE_CODEC(ShuffleBagIdList, fbBuilder4096)

}  // namespace vyn::tessel
