#pragma once

// The failures of vyn/variable.h: each records a text that names the variable and the cause, and returns the
// status for the caller. Any thread may call any function.

#include <cstdint>
#include <string>

namespace vyn::tessel {

/// The name of a variable in the cluster.
struct VariableKey {
  std::string application;
  std::uint32_t id = 0;

  /// "variable 7 of application app_1".
  std::string Text() const;
  bool operator<(const VariableKey& other) const {
    return id != other.id ? id < other.id : application < other.application;
  }
};

/// A service that can refuse a call.
enum class Service { kNodeServer, kMetadata };

/// \param status a failure, from the service or from the call itself.
std::uint32_t FailService(const VariableKey& key, Service service, std::uint32_t status);

/// \param doing what failed, as in "mapping block 3". \param nodeId the node that holds the block.
/// \param result of libbmclient.so, but not that the pool is full.
std::uint32_t FailFabric(const VariableKey& key, const std::string& doing, std::uint32_t nodeId, int result);

/// Asks the node for its free bytes. \param nodeId the node whose pool is full. \param needed bytes.
std::uint32_t FailPoolFull(const VariableKey& key, std::uint32_t nodeId, std::uint64_t needed);

}  // namespace vyn::tessel
