#include "services/vynd/options.h"

#include "common/util/system.h"

#include <arpa/inet.h>

#include <CLI/CLI.hpp>
#include <algorithm>

namespace vyn::services {

namespace {

std::string CheckAddress(const std::string& text) {
  in_addr address{};
  return inet_pton(AF_INET, text.c_str(), &address) == 1 ? std::string()
                                                         : "'" + text + "' is no IPv4 address";
}

/// Empty for a name that the node's record in ZooKeeper can hold and that every list and log can show.
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
      "vynd, the node daemon of Vyn broadcast: serves this node's part of the memory fabric, the server of "
      "its\n"
      "executors and, while it leads, the metadata service. One a node. Prints READY when it serves; SIGTERM "
      "ends it.",
      "vynd"};
  app.set_version_flag("--version", std::string("vynd ") + VYN_PROJECT_VERSION);
  long applicationSeconds = 60;
  options.hostName = common::VynGetHostname();
  options.poolSize = std::uint64_t{1} << 30;
  app.add_option("--home", options.home, "the installation; <home>/conf/vyn.conf is read")
      ->required()
      ->check(CLI::ExistingDirectory);
  app.add_option("--node-id", options.nodeId,
                 "this node's number in the cluster, 1 to 65535; never two nodes with one")
      ->required()
      ->check(CLI::Range(1, 65535));
  app.add_option("--address", options.address, "the IPv4 address at which the cluster reaches this node")
      ->required()
      ->check(CheckAddress);
  app.add_option("--host-name", options.hostName, "this node's name in lists and logs")
      ->capture_default_str();
  app.add_option("--pool", options.poolPath, "folder of the pool, on tmpfs (default /dev/shm/vyn-<node id>)");
  app.add_option("--pool-size", options.poolSize,
                 "bytes that the pool may take, with a suffix like 512M or 64G")
      ->transform(CLI::AsSizeValue(false))
      ->capture_default_str();
  app.add_option("--link-port", options.linkPort,
                 "port for the other nodes and for drivers outside the fabric, which reach 1 to 32767 "
                 "(default vyn.tessel.rpc.manager.port)")
      ->check(CLI::Range(1, 65535));
  app.add_option("--app-timeout", applicationSeconds,
                 "seconds after which an application that sent heartbeats and fell silent is removed")
      ->check(CLI::Range(1, 86400))
      ->capture_default_str();
  app.add_option("--max-variables", options.maxVariables, "variables that one application can have")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_option("--max-blocks", options.maxBlocks,
                 "blocks that one application can have, in all its variables and in this node's pool")
      ->check(CLI::PositiveNumber)
      ->capture_default_str();
  app.add_flag("--take-over", options.takeOver,
               "take this node id over from another address: that node is gone for good, or has moved here");
  try {
    app.parse(argc, argv);
    // Here, because the default, this machine's own name, is to pass too.
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
