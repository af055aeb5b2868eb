#pragma once

// How an internal step of the transport ended: a status and, when it failed, the text for an operator.
//
// Threads: a value, used by one thread at a time.

#include "platform/rpc/wire/status.h"

#include <cstdint>
#include <string>

namespace vyn::rpc {

struct [[nodiscard]] RpcOutcome {
  std::int32_t mStatus = kOk;
  std::string mText;

  bool Ok() const { return mStatus == kOk; }
};

}  // namespace vyn::rpc
