#pragma once

// What the metadata service knows of the applications and their variables.

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
  /// The blocks are known. Before that the lists are empty.
  bool ready = false;
  std::uint32_t nodeId = 0xFFFFFFFF;  ///< the node that holds the blocks
  std::vector<std::string> bmIds;
  std::vector<std::uint64_t> sizes;  ///< in bytes
  /// Its znode, how many pieces its block list has, and what names those below it.
  std::string path;
  std::uint32_t pieces = 0;
  std::string list;
};

struct Application {
  std::string name;
  /// It has sent a heartbeat, so its silence counts.
  bool heartbeat = false;
  /// Of its latest heartbeat, or of the start of this leadership.
  std::chrono::steady_clock::time_point lastBeat;
  std::map<std::uint32_t, Variable> variables;
  std::uint64_t blocks = 0;  ///< of all its variables, those that are not known yet included
};

/// The most that one application can have. Both stand in ZooKeeper and in the leader's memory.
struct ApplicationLimits {
  std::size_t variables = 100000;
  std::uint64_t blocks = 2000000;
};

}  // namespace vyn::services
