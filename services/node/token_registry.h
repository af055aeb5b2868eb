#pragma once

// The token of each application. The application's first registration, on any node, fixes it for the whole
// cluster. ZooKeeper holds a salted SHA-256 of the token, never the token itself.
//
// No shared state in this process: any thread may call FixToken.

#include <cstdint>
#include <string>

namespace vyn::services {

/// Fixes `token` if the application has none yet. Returns: 0 if `token` is the application's token;
/// kStatusWrongToken; kStatusStore when ZooKeeper failed or a removal of the name did not finish in time.
std::uint32_t FixToken(const std::string& application, const std::string& token);

}  // namespace vyn::services
