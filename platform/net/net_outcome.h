#pragma once

// How setting up a socket ended: a status and, when it failed, the text for an operator.
//
// Threads: a value, used by one thread at a time.

#include <string>

namespace vyn::net {

enum class NetStatus {
  kOk,
  kBadAddress,  ///< the text is no IP address
  kBadSetting,  ///< the options cannot be met: no such interface, no free port, an address of another host
  kNoSocket,    ///< the system has no socket left
  kRefused,     ///< the peer refused, or cannot be reached
  kTimedOut,    ///< the deadline passed
};

struct [[nodiscard]] NetOutcome {
  NetStatus mStatus = NetStatus::kOk;
  std::string mText;

  bool Ok() const { return mStatus == NetStatus::kOk; }
};

}  // namespace vyn::net
