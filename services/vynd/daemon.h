#pragma once

// vynd as a whole: brings its parts up in order and takes them down in the opposite one.

#include "platform/fabric/node/fabric_node.h"
#include "services/metadata/metadata_member.h"
#include "services/node/metadata_client.h"
#include "services/node/node_registry.h"
#include "services/node/node_server.h"
#include "services/node/reclaimer.h"
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
  /// Stops.
  ~Daemon();
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;

  /// \param stopping ends the waits of the start early; Stop has to follow.
  /// Returns: whether everything serves; otherwise `errors` tells, one complaint a line, and nothing runs.
  bool Start(std::vector<std::string>& errors, const std::function<bool()>& stopping);
  /// Leaves the cluster's tree, gives the leadership up and lets running calls answer, all at once; then
  /// closes everything. Objects stay in the pool.
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
  std::vector<std::string> mWarnings;  ///< of the configuration
  HomeLock mLock;
  fabric::FabricNode mFabric;
  MetadataClient mMetadataClient;
  std::unique_ptr<MetadataMember> mMember;
  std::unique_ptr<NodeServer> mNodeServer;
  std::unique_ptr<Reclaimer> mReclaimer;
  /// The node id is this process's: new namespaces may be made.
  std::atomic<bool> mClaimed{false};
  std::unique_ptr<NodeRegistry> mRegistry;
};

}  // namespace vyn::services
