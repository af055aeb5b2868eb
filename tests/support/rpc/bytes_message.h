#pragma once

// A message whose payload is the text itself, for tests that look at the frame around it.

#include "common/message/base_message.h"
#include "support/test.h"
#include "vyn/status.h"

namespace vyn::test {

class BytesMessage : public common::BaseMessage {
 public:
  explicit BytesMessage(std::string text = "") : mText(std::move(text)) {}

  std::uint32_t Serialize() override {
    mSerializedData = mText.empty() ? nullptr : reinterpret_cast<std::uint8_t*>(mText.data());
    mSerializedDataSize = static_cast<std::uint32_t>(mText.size());
    return VYN_OK;
  }
  std::uint32_t Deserialize() override {
    mText.assign(mInputRawData, mInputRawDataSize);
    return mText == "refuse" ? VYN_ERR_MESSAGE_DECODE : VYN_OK;
  }

  std::string mText;
};

}  // namespace vyn::test
