#include "common/message/message_codec.h"

#include "common/log/logging.h"

namespace vyn::common::codec {

std::uint32_t Refuse(Place place, std::string_view what) { return Refuse(place, {}, what, {}); }

std::uint32_t Refuse(Place place, std::string_view open, std::string_view name, std::string_view close) {
  if (logging::ErrorGate()) {
    std::ostringstream text;
    text << "Unexpected nullptr value " << open << name << close;
    logging::WriteAt(logging::kError, place.file, place.line, text.str());
  }
  return VYN_ERR_MESSAGE_DECODE;
}

}  // namespace vyn::common::codec
