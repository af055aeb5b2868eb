#pragma once

// The RPC server for the processes of this machine: registration of applications, batches of blocks, the
// leader's address, blobs.
//
// An application is registered at a node if the node's pool has its namespace. So a registration survives a
// restart of the daemon. A blob is an object of the pool, and its blob id is computed from the object id. So
// the server finds a blob after a restart as well.
//
// One thread calls Start and Stop; any thread may call the other operations.

#include "platform/fabric/node/fabric_node.h"
#include "platform/rpc/server/server.h"
#include "platform/sync/mutex.h"
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
#include <string>
#include <vector>

namespace vyn::services {

struct NodeServerOptions {
  std::uint16_t nodeId = 0;
  std::uint16_t port = 0;  ///< on 127.0.0.1
  /// The most objects of one application in this node's pool.
  std::uint64_t maxObjects = 2000000;
  rpc::ServerOptions server;
  /// Frees what an earlier application of that name has left on this node. Called when an application
  /// registers.
  /// Returns: whether nothing is left.
  std::function<bool(const std::string& application)> reclaim;
  /// Lets another thread free objects of the pool. Must not block: the RPC server's threads call it.
  std::function<void(const std::string& application, const std::vector<std::string>& bmIds)> giveBack;
  VariableCache::AskLeader lookUp;
  /// See VariableCache; may be null.
  std::function<bool()> mayAnswer;
  /// Called with each batch of blocks that was allocated for a variable; may be null. May write a file, but
  /// must not wait for another process.
  std::function<void(const std::string& application, std::uint32_t id, const std::vector<std::string>& bmIds)>
      created;
};

class NodeServer {
 public:
  /// \param fabric must outlive the server.
  NodeServer(NodeServerOptions options, fabric::FabricNode& fabric);
  /// Calls Stop.
  ~NodeServer();
  NodeServer(const NodeServer&) = delete;
  NodeServer& operator=(const NodeServer&) = delete;

  /// Returns: false with the reason in `error`.
  bool Start(std::string& error);
  /// Waits for the replies of running calls, at most rpc::ServerOptions::mStopTimeout, and closes the
  /// connections.
  void Stop();

  /// Drops a variable, or all variables of an application that has ended, from the cache, and drops the
  /// pulled copies of their blocks.
  void Forget(const std::string& application, std::uint32_t id);
  void Forget(const std::string& application);
  /// Drops all variables and pulled copies. Call it when this node's record in ZooKeeper was made anew:
  /// meanwhile the leader may have taken this node for down, and then it reuses the number of a deleted
  /// variable without waiting for this node.
  void ForgetAll();

 private:
  void RegisterOperations();
  std::uint32_t RegisterApplication(tessel::ApplicationRegisterRequest& request,
                                    tessel::NodeIdResponse& response, const std::string& peer);
  std::uint32_t UnregisterApplication(tessel::ApplicationRegisterRequest& request, const std::string& peer);
  std::uint32_t CreateBlocks(tessel::BroadcastBlockBatch& request, tessel::BroadcastBlockInfo& response);
  /// Frees the objects of a call whose reply did not reach the caller.
  void TakeBack(const char* operation, const std::string& application, const std::vector<std::string>& bmIds);
  void FetchBlocks(const tessel::BroadcastVar& request, const Caller& caller);
  std::uint32_t CreateBlob(tessel::BlobCreateRequest& request, tessel::ShuffleBlob& response,
                           const std::string& peer);
  std::uint32_t DeleteBlobs(tessel::BlobBatchDeleteRequest& request, const std::string& peer);
  /// Checks the application's token for an operation on blobs. Writes an audit line for a wrong token.
  /// Returns: 0 or a status.
  std::uint32_t CheckToken(const std::string& application, const std::string& token, const char* operation,
                           const std::string& peer) const;
  /// The number of the application's objects in the pool.
  std::uint64_t ObjectsOf(const std::string& application) const;
  /// The quota for objects that one call is about to allocate. Concurrent calls count it against the limit
  /// too.
  class QuotaReservation;
  bool IsRegistered(const std::string& application) const;

  const NodeServerOptions mOptions;
  fabric::FabricNode& mFabric;
  VariableCache mVariables;
  rpc::Server mServer;

  std::atomic<bool> mStopping{false};
  sync::Mutex mReservedMutex;
  /// The reserved objects of each application.
  std::map<std::string, std::uint64_t> mReserved VYN_GUARDED_BY(mReservedMutex);
};

}  // namespace vyn::services
