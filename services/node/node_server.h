#pragma once

// The server of this node's executors: applications, block batches, the leader's address, blobs.
//
// An application is registered at a node when the node's pool has its namespace, so a registration outlives a
// restart of the daemon. A blob is an object of the pool whose number is made from its id there, so
// that it is found again after a restart too.

#include "platform/fabric/node/fabric_node.h"
#include "platform/rpc/server/server.h"
#include "services/common/rpc_handlers.h"
#include "services/node/variable_cache.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/shuffle/blob_messages.h"
#include "tessel/message/shuffle/shuffle_blob.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::services {

struct NodeServerOptions {
  std::uint16_t nodeId = 0;
  std::uint16_t port = 0;  ///< on 127.0.0.1
  /// The most objects of one application in this node's pool.
  std::uint64_t maxObjects = 2000000;
  rpc::ServerOptions server;
  /// Gives back, before an application registers, what an earlier application of that name has left on this
  /// node.
  /// Returns: whether nothing is left of it.
  std::function<bool(const std::string& application)> reclaim;
  /// Frees objects of the pool, soon: called from threads that must not wait.
  std::function<void(const std::string& application, const std::vector<std::string>& bmIds)> giveBack;
  VariableCache::AskLeader lookUp;
};

class NodeServer {
 public:
  /// \param fabric is the caller's and outlives the server.
  NodeServer(NodeServerOptions options, fabric::FabricNode& fabric);
  /// Stops.
  ~NodeServer();
  NodeServer(const NodeServer&) = delete;
  NodeServer& operator=(const NodeServer&) = delete;

  /// Returns: false with the reason.
  bool Start(std::string& error);
  /// Lets running calls answer.
  void Stop();

  /// Forgets what is remembered of a variable, of an application that has ended, and what was pulled of their
  /// blocks.
  void Forget(const std::string& application, std::uint32_t id);
  void Forget(const std::string& application);
  /// All, for the leader may have counted this node as down: it does not wait then until what was deleted is
  /// forgotten here before a number is used again.
  void ForgetAll();

 private:
  void RegisterOperations();
  std::uint32_t RegisterApplication(tessel::ApplicationRegisterRequest& request,
                                    tessel::NodeIdResponse& response, const std::string& peer);
  std::uint32_t UnregisterApplication(tessel::ApplicationRegisterRequest& request, const std::string& peer);
  std::uint32_t CreateBlocks(tessel::BroadcastBlockBatch& request, tessel::BroadcastBlockInfo& response);
  /// Frees what was made for a caller that has gone without its answer.
  void TakeBack(const char* operation, const std::string& application, const std::vector<std::string>& bmIds);
  void FetchBlocks(const tessel::BroadcastVar& request, const Caller& caller);
  std::uint32_t CreateBlob(tessel::BlobCreateRequest& request, tessel::ShuffleBlob& response,
                           const std::string& peer);
  std::uint32_t DeleteBlobs(tessel::BlobBatchDeleteRequest& request, const std::string& peer);
  /// Whether the token is the application's, for an operation on blobs. A wrong one is audited. Returns: 0 or
  /// a status.
  std::uint32_t CheckToken(const std::string& application, const std::string& token, const char* operation,
                           const std::string& peer) const;
  /// Objects that the pool has of the application.
  std::uint64_t ObjectsOf(const std::string& application) const;
  /// Objects that a call is about to make: others that come meanwhile count them, too.
  class Making;
  bool IsRegistered(const std::string& application) const;

  const NodeServerOptions mOptions;
  fabric::FabricNode& mFabric;
  VariableCache mVariables;
  rpc::Server mServer;

  std::atomic<bool> mStopping{false};
  std::mutex mMakingMutex;
  /// By application. Guarded by mMakingMutex.
  std::map<std::string, std::uint64_t> mMaking;
};

}  // namespace vyn::services
