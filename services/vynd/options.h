#pragma once

// What an operator tells vynd on its command line.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vyn::services {

struct Options {
  std::string home;  ///< the installation; its conf/vyn.conf is read
  std::uint16_t nodeId = 0;
  std::string address;  ///< numeric; this node's identity in the cluster
  std::string hostName;
  std::string poolPath;
  std::uint64_t poolSize = 0;  ///< bytes
  std::uint16_t linkPort = 0;  ///< 0: vyn.tessel.rpc.manager.port
  std::chrono::milliseconds applicationTimeout{0};
  std::size_t maxVariables = 100000;  ///< of one application
  std::uint64_t maxBlocks = 2000000;  ///< of one application
  bool takeOver = false;              ///< the node of this id at another address will not come back
};

/// Reads the command line. Returns: true; false when the process has to end with `exitCode` (help and version
/// were printed, or a complaint was).
bool ReadOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace vyn::services
