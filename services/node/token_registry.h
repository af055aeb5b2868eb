#pragma once

// The token of each application, fixed for the cluster by the application's first registration on any node.
// ZooKeeper holds a salted SHA-256 of it, never the token.

#include <cstdint>
#include <string>

namespace vyn::services {

/// Fixes `token` when the application has none yet. Returns: 0 when `token` is the application's;
/// kStatusWrongToken; kStatusStore when ZooKeeper did not answer.
std::uint32_t FixToken(const std::string& application, const std::string& token);

}  // namespace vyn::services
