#pragma once

// The applications and variables as the metadata leader has them in memory. Plain data: MetadataState guards
// it.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vyn::services {

struct Variable {
  std::uint32_t id = 0;
  std::uint32_t blockNum = 0;
  /// The id of the first block of the writer that has claimed the number, until the blocks are known. Empty
  /// for a writer that did not say it.
  std::string writer;
  /// Whether the blocks are known. Before that the lists are empty.
  bool ready = false;
  std::uint32_t nodeId = 0xFFFFFFFF;  ///< the node that holds the blocks
  std::vector<std::string> bmIds;
  std::vector<std::uint64_t> sizes;  ///< in bytes
  /// The path of its record, the number of pieces of its block list, and the part of their names that
  /// PiecePath takes.
  std::string path;
  std::uint32_t pieces = 0;
  std::string list;
};

struct Application {
  std::string name;
  /// Whether it has sent a heartbeat. Only then the leader removes it when heartbeats stop.
  bool heartbeat = false;
  /// The time of its last heartbeat, or of the start of this leadership.
  std::chrono::steady_clock::time_point lastBeat;
  std::map<std::uint32_t, Variable> variables;
  std::uint64_t blocks = 0;  ///< the sum of Variable::blockNum, also of variables that are not ready
};

/// The limits of one application. They bound its use of ZooKeeper and of the leader's memory.
struct ApplicationLimits {
  std::size_t variables = 100000;
  std::uint64_t blocks = 2000000;
};

}  // namespace vyn::services
