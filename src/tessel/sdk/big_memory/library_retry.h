#pragma once

// Retries a call of libbmclient.so. It sleeps in the calling thread, also while the caller holds a lock. No
// state.

#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "platform/fabric/client/bm_functions.h"

#include <array>
#include <chrono>

namespace vyn::tessel {

/// Sleeps before the first, second and third retry.
using RetryPauses = std::array<common::Retry::Duration, 3>;

/// Runs `call`, and again, after the pauses, while `again(result)` says so. `warn(retry, result)` runs
/// between a sleep and its call, `retry` counting from 0. Returns: the last result, with the errno of the
/// last call.
template <typename Call, typename Again, typename Warn>
int CallWithRetry(const RetryPauses& pauses, Call call, Again again, Warn warn) {
  auto retry = common::Retry::After(pauses);
  int result = call();
  while (again(result) && retry.Again()) {
    warn(retry.Count() - 1, result);
    result = call();
  }
  return result;
}

/// The common retry: while the library's connection is not up. `operation` names the call in the warning
/// line.
template <typename Call>
int CallWithCommonRetry(const char* operation, Call call) {
  constexpr RetryPauses kPauses{std::chrono::seconds(5), std::chrono::seconds(10), std::chrono::seconds(15)};
  return CallWithRetry(
      kPauses, call, [](int result) { return result == kBmUnconnected; },
      [operation](unsigned int retry, int) {
        VYN_LOG_WARN("Connection unconnected, retry " << operation << " " << retry + 1 << "/3");
      });
}

}  // namespace vyn::tessel
