#pragma once

// Load with random disconnects on the RPC layer: callers whose replies are checked, and peers that break off.

#include <chrono>

namespace vyn::test {

/// Reports through gtest: every answer was the caller's own, no byte of another was left to be read on any
/// connection, and no descriptor stayed behind.
void RunRpcLoad(std::chrono::milliseconds duration, bool tls);

}  // namespace vyn::test
