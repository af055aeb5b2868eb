#pragma once

// This node in the cluster's tree: its ephemeral records under /mf, kept fresh by a thread of its own, and
// its persistent ones, by which the metadata leader knows it also while it is down.
//
// A node id is a node's own: what stands below it in ZooKeeper tells which memory of that node is free. So
// Claim comes before anything of the id is read or written, and refuses an id that is another node's:
//
//   /mf/node/<id> of another session, at another address          refused: that node runs
//   ... at this address and link port                             replaced: this node before a restart, for
//                                                                 nobody else can have the open port
//   ... at this address and another link port                     waited for, at most claimLimit: it may run
//   /vyn/nodes/<id> with another address, and an empty pool here  refused without takeOver: it may come back

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace vyn::services {

struct NodeIdentity {
  std::uint16_t nodeId = 0;
  std::string address;
  std::string hostName;
  std::uint16_t linkPort = 0;
  /// The node of this id at another address is gone for good, or has moved here and lost its pool.
  bool takeOver = false;
  /// How long the claim waits for the end of an earlier session: longer than a session lives.
  std::chrono::milliseconds claimLimit{40000};
};

class NodeRegistry {
 public:
  /// \param fabric is the caller's and outlives the registry.
  NodeRegistry(NodeIdentity identity, const fabric::FabricNode& fabric);
  /// Stops.
  ~NodeRegistry();
  NodeRegistry(const NodeRegistry&) = delete;
  NodeRegistry& operator=(const NodeRegistry&) = delete;

  /// Makes the id this node's: its record under /mf/node, then its persistent ones. Requires: the fabric node
  /// runs.
  /// \param stopping ends the wait early. Returns: false with the reason: ZooKeeper does not answer, or the
  /// id is another node's, of which nothing was changed.
  bool Claim(std::string& error, const std::function<bool()>& stopping = {});
  /// Publishes the capacity too, with which this node is chosen for blocks, and begins to keep the records.
  /// Requires: Claim. Returns: false with the reason.
  bool Start(std::string& error);
  /// Ends the thread and takes the ephemeral records away.
  void Stop();

 private:
  /// What became of an attempt to publish a record.
  enum class Published { kDone, kForeign, kUndecided, kFailed };

  bool MakeTree(std::string& error);
  bool CheckKnownAddress(std::string& error);
  Published PublishIdentity(std::string& error);
  bool PublishCapacity(std::string& error);
  Published PublishEphemeral(const std::string& path, const std::string& record,
                             const std::function<Published(const std::string& present)>& judge,
                             std::string& error);
  void Keep();

  const NodeIdentity mIdentity;
  const fabric::FabricNode& mFabric;
  /// Whether the last round of mTask found or made the records. Only its thread uses it.
  bool mPublished = true;
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
