#pragma once

// Real daemons, and drivers and executors as processes of their own, for tests of the whole.

#include "support/child_process.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/zookeeper_server.h"

namespace vyn::test {

/// A node of a cluster: its home, its configuration and pool, and its daemon when that runs. The end of the
/// object ends the daemon and removes the pool.
class VyndNode {
 public:
  /// \param metadataPort the one port at which the leader of the cluster listens. \param nodeList who may
  ///        lead.
  /// \param prefix words in front of the command lines of the daemon and of the node's clients: another user,
  /// a network namespace.
  VyndNode(int nodeId, const std::string& address, const std::string& zookeeper, int metadataPort,
           const std::string& nodeList, std::vector<std::string> prefix = {});

  const std::string& Home() const { return mHome; }
  const std::string& Pool() const { return mPool.Path(); }
  const std::vector<std::string>& Prefix() const { return mPrefix; }
  /// The command line of the daemon.
  std::vector<std::string> Command(const std::string& poolSize = "64M", int applicationTimeout = 60) const;
  /// Starts it and waits until it is ready; throws std::runtime_error with what it said when it is not.
  void Start(const std::string& poolSize = "64M", int applicationTimeout = 60);
  ChildProcess& Process() { return mProcess; }
  /// Objects in the pool.
  std::size_t Objects() const;
  /// The files in the pool, pulled copies and half-made ones included, and the folders of namespaces.
  std::vector<std::string> PoolEntries() const;
  /// Descriptors and threads of the running daemon.
  std::size_t Descriptors() { return Count("fd"); }
  std::size_t Threads() { return Count("task"); }
  std::string Log() const;

 private:
  /// Entries of the daemon's folder below /proc.
  std::size_t Count(const std::string& what);

  TempDir mFolder;
  const int mNodeId;
  const std::string mAddress;
  const std::vector<std::string> mPrefix;
  const std::string mHome = mFolder / "home";
  const TempDir mPool{"/dev/shm"};
  ReservedPort mServerPort;
  ReservedPort mLinkPort{20000, 31999};  ///< the record of a node has room for ports below 32768
  ChildProcess mProcess;
};

/// programs/broadcast_client.
class BroadcastClient {
 public:
  /// Initialises it as a driver or an executor of the home; throws when that fails.
  BroadcastClient(const VyndNode& node, bool driver) : BroadcastClient(node.Home(), driver, node.Prefix()) {}
  BroadcastClient(const std::string& home, bool driver, const std::vector<std::string>& prefix = {});
  /// Returns: the answer, a status first.
  std::string Do(const std::string& command);
  ChildProcess& Process() { return mProcess; }

 private:
  ChildProcess mProcess;
};

}  // namespace vyn::test
