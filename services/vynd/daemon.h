#pragma once

// The whole of vynd: starts the fabric node, the ZooKeeper session, the node registry, the metadata member,
// the node server, the reclaimer and the watch over unpublished variables in this order, and stops them.
//
// One thread calls Start and Stop. The parts have threads of their own. Their callbacks use mClaimed and
// parts that Start creates before the part that calls them starts.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "services/metadata/metadata_member.h"
#include "services/node/metadata_client.h"
#include "services/node/node_registry.h"
#include "services/node/node_server.h"
#include "services/node/reclaimer.h"
#include "services/node/unpublished/unpublished_variables.h"
#include "services/vynd/home_lock.h"
#include "services/vynd/options.h"

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace vyn::services {

class Daemon {
 public:
  explicit Daemon(Options options);
  /// Calls Stop.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// \param stopping ends the waits early when it returns true; the caller then has to call Stop.
  /// Returns: true when every part serves. Otherwise nothing runs and `errors` holds the reasons, one an
  /// entry.
  bool Start(std::vector<std::string>& errors, const std::function<bool()>& stopping);
  /// Reads conf/vyn.conf again, and takes over its log level; all other settings stay. Then reads the files
  /// of certificates and keys again. If the file has errors, changes nothing. Requires: Start has succeeded.
  void Reload();
  /// Deletes this node's ephemeral znodes, gives up the leadership and waits for the replies of running
  /// calls, in parallel. Then closes the pool and the ZooKeeper session. Objects stay in the pool.
  void Stop();

 private:
  bool PrepareProcess(std::vector<std::string>& errors);
  bool StartLog(std::string& error);
  bool StartFabric(std::string& error);
  bool ConnectZooKeeper(std::string& error);
  std::uint16_t LinkPort() const;
  rpc::ServerOptions ServerSettings();

  Options mOptions;
  std::string mHome;
  std::vector<std::string> mWarnings;  ///< from the check of the configuration; logged once the log is open
  HomeLock mLock;
  fabric::FabricNode mFabric;
  common::PeriodicTask mFabricSweep;
  MetadataClient mMetadataClient;
  std::unique_ptr<MetadataMember> mMember;
  UnpublishedVariables mUnpublished{mFabric, mMetadataClient};
  std::unique_ptr<NodeServer> mNodeServer;
  std::unique_ptr<Reclaimer> mReclaimer;
  /// Whether NodeRegistry::Claim has succeeded. Until then the fabric refuses new namespaces.
  std::atomic<bool> mClaimed{false};
  std::unique_ptr<NodeRegistry> mRegistry;
};

}  // namespace vyn::services
