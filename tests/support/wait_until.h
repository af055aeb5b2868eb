#pragma once

#include "support/test.h"

namespace vyn::test {

/// Waits until `condition` holds. Returns: whether it did within the limit.
inline bool WaitUntil(const std::function<bool()>& condition,
                      std::chrono::seconds limit = std::chrono::seconds(120)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

}  // namespace vyn::test
