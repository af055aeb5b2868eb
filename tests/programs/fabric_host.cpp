// Runs one fabric node until its input ends. Each line of input is a command, each is answered by one line:
//
//   stats                    capacity used objects namespaces copies copyBytes pulls connections
//   peer NODE ADDRESS PORT   where another node listens            -> ok
//
// The first line of output is "ready PORT" or "failed TEXT".

#include "platform/fabric/node/fabric_node.h"
#include "support/commands.h"
#include "support/test.h"

#include <CLI/CLI.hpp>

int main(int argc, char** argv) {
  vyn::fabric::FabricNodeOptions options;
  options.capacity = 1ULL << 30U;
  options.sweepSeconds = 1;
  CLI::App app("A fabric node");
  app.add_option("--home", options.home);
  app.add_option("--pool", options.poolPath)->required();
  app.add_option("--capacity", options.capacity);
  app.add_option("--node", options.nodeId)->required();
  app.add_option("--listen", options.listenAddress);
  app.add_option("--port", options.linkPort);
  app.add_option("--connections", options.maxBrokerConnections);
  CLI11_PARSE(app, argc, argv);

  std::mutex mutex;
  std::map<unsigned, vyn::fabric::NodeAddress> peers;  // guarded by mutex
  options.directory = [&](std::uint16_t nodeId, vyn::fabric::NodeAddress& address) {
    std::lock_guard lock(mutex);
    const auto found = peers.find(nodeId);
    address = found == peers.end() ? address : found->second;
    return found != peers.end();
  };
  options.log = [](int, const std::string& text) { std::cerr << text << std::endl; };

  vyn::fabric::FabricNode node;
  std::string error;
  if (!node.Start(options, error)) {
    std::cout << "failed " << error << std::endl;
    return 1;
  }
  std::cout << "ready " << node.LinkPort() << std::endl;
  vyn::test::ServeCommands({
      {"stats",
       [&] {
         const auto stats = node.Stats();
         return vyn::test::Answer(stats.capacity, stats.used, stats.objects, stats.namespaces, stats.copies,
                                  stats.copyBytes, stats.pulls, stats.connections);
       }},
      {"peer",
       [&](unsigned peer, std::string host, std::uint16_t port) {
         std::lock_guard lock(mutex);
         peers[peer].host = host;
         peers[peer].port = port;
         return "ok";
       }},
  });
  return 0;
}
