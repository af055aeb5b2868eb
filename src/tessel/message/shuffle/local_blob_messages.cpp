#include "tessel/message/shuffle/local_blob_messages.h"

#include "common/message/message_codec.h"
#include "schema/local_blob_generated.h"

namespace vyn::tessel {

VYN_MESSAGE_CODEC(LocalBlobGetRequest, fbBuilder128)
VYN_MESSAGE_CODEC(LocalBlob, fbBuilder128)
VYN_MESSAGE_CODEC(LocalBlobCommitRequest, fbBuilder128)
VYN_MESSAGE_CODEC(LocalBlobCommitResponse, fbBuilder128)

}  // namespace vyn::tessel
