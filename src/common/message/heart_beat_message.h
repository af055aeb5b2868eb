#pragma once

// The heartbeat of an application's process, for the metadata service or the tuning service.
// common/message/base_message.h says how a message is used and on which threads.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>
#include <utility>

namespace vyn::common {

struct THeartBeatMessage;

class HeartBeatMessage : public Message<THeartBeatMessage> {
 public:
  HeartBeatMessage() = default;
  HeartBeatMessage(std::string name, std::uint8_t type, std::string process, std::string text, bool alive)
      : ns(std::move(name)),
        processType(type),
        processName(std::move(process)),
        content(std::move(text)),
        isAlive(alive) {}

  std::string ns;                ///< the application's name
  std::uint8_t processType = 0;  ///< `processType` of HeartBeat (vyn/broadcast.h)
  std::string processName;
  std::string content;   ///< free text of the sender
  bool isAlive = false;  ///< true while the sender runs; false in the last one, at its stop
  VYN_MESSAGE_FIELDS(ns, processType, processName, content, isAlive)
};

}  // namespace vyn::common
