#include "services/vynd/options.h"

#include "common/util/system.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>

namespace vyn::services {

namespace {

/// Returns: empty for a valid address, otherwise the complaint.
std::string CheckAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ? std::string()
                                                         : "'" + text + "' is no IPv4 address";
}

/// Accepts a name that fits into the node's record in ZooKeeper and is safe to print. Returns: empty for a
/// valid name, otherwise the complaint.
std::string CheckHostName(const std::string& text) {
  constexpr std::size_t kLongest = 63;
  const bool plain = std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '_';
  });
  return plain && !text.empty() && text.size() <= kLongest
             ? std::string()
             : "a host name has 1 to 63 letters, digits, '-', '.' and '_'";
}

}  // namespace

bool ReadOptions(int argc, char** argv, Options& options, int& exitCode) {
  CLI::App app{
      "vynd, the node daemon of Vyn broadcast. It serves this node's pool of the memory fabric, the node "
      "server\n"
      "of the local executors and, while it leads, the metadata service. Run one vynd on each node.\n"
      "It prints READY when it serves. SIGTERM stops it.",
      "vynd"};
  app.set_version_flag("--version", std::string("vynd ") + VYN_PROJECT_VERSION);
  long applicationSeconds = 60;
  options.hostName = common::VynGetHostname();
  options.poolSize = std::uint64_t{1} << 30;
  app.add_option("--home", options.home, "the installation; <home>/conf/vyn.conf is read")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--node-id", options.nodeId,
                 "this node's number in the cluster, 1 to 65535; no two nodes may have the same one")
      ->required()
      ->check(CLI::Range(1, 65535));
  app.add_option("--address", options.address, "the IPv4 address at which the cluster reaches this node")
      ->required()
      ->check(CheckAddress);
  app.add_option("--host-name", options.hostName, "this node's name in lists and logs")
      ->capture_default_str();
  app.add_option("--pool", options.poolPath, "folder of the pool, on tmpfs (default /dev/shm/vyn-<node id>)");
  app.add_option("--pool-size", options.poolSize,
                 "the most bytes of memory for the pool, with a suffix like 512M or 64G")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  app.add_option("--link-port", options.linkPort,
                 "port for the other nodes and for drivers outside the fabric; such drivers need 1 to 32767 "
                 "(default vyn.tessel.rpc.manager.port)")
      ->check(CLI::Range(1, 65535));
  app.add_option("--app-timeout", applicationSeconds,
                 "seconds after its last heartbeat until the leader removes an application")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  app.add_option("--max-variables", options.maxVariables, "the most variables of one application")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--max-blocks", options.maxBlocks,
                 "the most blocks of one application: in all its variables, and in this node's pool")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_flag(
      "--take-over", options.takeOver,
      "take over a node id that is registered at another address, because that node is gone for good\n"
      "or has moved to this machine");
  try {
    app.parse(argc, argv);
    // A validator of CLI11 would not see the default value, which is this machine's name.
    if (const std::string complaint = CheckHostName(options.hostName); !complaint.empty()) {
      throw CLI::ValidationError("--host-name", complaint);
    }
  } catch (const CLI::ParseError& error) {
    exitCode = app.exit(error) == 0 ? 0 : 2;
    return false;
  }
  if (options.poolPath.empty()) {
    options.poolPath = "/dev/shm/vyn-" + std::to_string(options.nodeId);
  }
  options.applicationTimeout = std::chrono::seconds(applicationSeconds);
  return true;
}

}  // namespace vyn::services
