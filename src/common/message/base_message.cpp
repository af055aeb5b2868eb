#include "common/message/base_message.h"

#include "common/log/logging.h"
#include "platform/secure_memory/secure_memory.h"

#include <flatbuffers/flatbuffer_builder.h>

#include <new>

namespace vyn::common {

// All four are defined in one source file, so the first use of one in a thread makes all four.
thread_local flatbuffers::FlatBufferBuilder BaseMessage::fbBuilder128{128};
thread_local flatbuffers::FlatBufferBuilder BaseMessage::fbBuilder256{256};
thread_local flatbuffers::FlatBufferBuilder BaseMessage::fbBuilder512{512};
thread_local flatbuffers::FlatBufferBuilder BaseMessage::fbBuilder4096{2048};

Ref<BaseMessage> BaseMessage::gNullPtr;

BaseMessage::~BaseMessage() {
  if (mInputRawDataOwned) {
    delete[] mInputRawData;
  }
}

std::uint32_t BaseMessage::SetInputRawData(char* rawData, unsigned int size, bool copy) {
  if (rawData == nullptr) {
    VYN_LOG_ERROR("set_input_raw_data input rawData is null.");
    return VYN_ERR_MESSAGE_DECODE;
  }
  if (size == 0) {
    VYN_LOG_ERROR("set_input_raw_data input size <= 0. size:" << size);
    return VYN_ERR_MESSAGE_DECODE;
  }
  if (size > kMaxInputSize) {
    VYN_LOG_ERROR("set_input_raw_data input size > " << kMaxInputSize << ". size:" << size);
    return VYN_ERR_MESSAGE_DECODE;
  }
  mInputRawDataSize = size;
  if (!copy) {
    mInputRawData = rawData;
    return VYN_OK;
  }
  mInputRawDataOwned = true;
  mInputRawData = new (std::nothrow) char[size];
  VYN_CHECK_POINTER(mInputRawData);
  if (memcpy_s(mInputRawData, size, rawData, size) != SECURE_OK) {
    VYN_LOG_ERROR("memcpy_s in set_input_raw_data failed.");
    return VYN_ERR_MESSAGE_DECODE;
  }
  return VYN_OK;
}

}  // namespace vyn::common
