#pragma once

// Load with random disconnects on the RPC layer: callers whose replies are checked, and peers that break off.

#include <chrono>

namespace vyn::test {

/// Reports through gtest: every answer was the caller's own, and no descriptor stayed behind.
void RunRpcLoad(std::chrono::milliseconds duration);

}  // namespace vyn::test
