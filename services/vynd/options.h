#pragma once

// The command line of vynd. Plain data: one thread uses an object at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace vyn::services {

struct Options {
  std::string home;  ///< the installation; its conf/vyn.conf is read
  std::uint16_t nodeId = 0;
  std::string address;  ///< numeric IPv4; the rest of the cluster reaches this node there
  std::string hostName;
  std::string poolPath;
  std::uint64_t poolSize = 0;  ///< bytes
  std::uint16_t linkPort = 0;  ///< 0: vyn.tessel.rpc.manager.port
  std::chrono::milliseconds applicationTimeout{0};
  std::size_t maxVariables = 100000;  ///< for one application
  std::uint64_t maxBlocks = 2000000;  ///< for one application
  bool takeOver = false;              ///< take the node id although it is registered at another address
};

/// Reads the command line. Returns: false when help, the version or a complaint was printed; the process then
/// has to end with `exitCode`.
bool ReadOptions(int argc, char** argv, Options& options, int& exitCode);

}  // namespace vyn::services
