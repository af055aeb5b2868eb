#include "tessel/message/broadcast/broadcast_messages.h"

#include "common/message/message_codec.h"
#include "schema/broadcast_generated.h"

namespace vyn::tessel {

VYN_MESSAGE_CODEC(BroadcastVar, fbBuilder256)
VYN_MESSAGE_CODEC(VariableClaim, fbBuilder256)
VYN_MESSAGE_CODEC(BroadcastVarEntry, fbBuilder256)
VYN_MESSAGE_CODEC(BroadcastBlockBatch, fbBuilder4096)
VYN_MESSAGE_CODEC(BroadcastBlockInfo, fbBuilder4096)
VYN_MESSAGE_CODEC(BlockInfoRequest, fbBuilder128)
VYN_MESSAGE_CODEC(BlockBmInfo, fbBuilder4096)
VYN_MESSAGE_CODEC(BroadcastRemoteNodeReq, fbBuilder4096)
VYN_MESSAGE_CODEC(BroadcastRemoteNodeRsp, fbBuilder4096)

}  // namespace vyn::tessel
