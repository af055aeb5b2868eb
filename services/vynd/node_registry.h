#pragma once

// This node in the cluster's tree: its ephemeral records under /mf, kept fresh by a thread of its own, and its persistent
// ones, by which the metadata leader knows it also while it is down.

#include "platform/bmclient/node/fabric_node.h"

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>

namespace vyn::services {

struct NodeIdentity {
  std::uint16_t nodeId = 0;
  std::string address;
  std::string hostName;
  std::uint16_t linkPort = 0;
};

class NodeRegistry {
 public:
  /// \param fabric is the caller's and outlives the registry.
  NodeRegistry(NodeIdentity identity, const bm::FabricNode& fabric);
  /// Stops.
  ~NodeRegistry();
  NodeRegistry(const NodeRegistry&) = delete;
  NodeRegistry& operator=(const NodeRegistry&) = delete;

  /// Publishes the records and begins to keep them. Returns: false with the reason: ZooKeeper does not answer, or a node
  /// at another address has this id.
  bool Start(std::string& error);
  /// Ends the thread and takes the ephemeral records away.
  void Stop();

 private:
  bool Publish(std::string& error);
  bool PublishEphemerals(std::string& error);
  bool PublishEphemeral(const std::string& path, const std::string& record, bool identity,
                        std::string& error);
  void Run();

  const NodeIdentity mIdentity;
  const bm::FabricNode& mFabric;
  std::mutex mMutex;
  /// Guarded by mMutex.
  bool mStopping = false;
  std::condition_variable mWake;
  std::thread mThread;
};

}  // namespace vyn::services
