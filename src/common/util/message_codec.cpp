#include "common/util/message_codec.h"

#include "common/util/logging.h"

namespace vyn::common::codec {

std::uint32_t Refuse(std::string_view what) {
  VYN_LOG_ERROR("Unexpected nullptr value " << what);
  return VYN_ERR_MESSAGE_DECODE;
}

std::uint32_t Refuse(std::string_view open, std::string_view name, std::string_view close) {
  VYN_LOG_ERROR("Unexpected nullptr value " << open << name << close);
  return VYN_ERR_MESSAGE_DECODE;
}

}  // namespace vyn::common::codec
