#include "services/node/node_server.h"

#include "common/log/exceptions.h"
#include "common/log/logging.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/results.h"
#include "services/node/metadata_client.h"
#include "services/node/token_registry.h"
#include "tessel/message/operation_codes.h"

#include <sodium.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <unordered_set>

namespace vyn::services {

namespace {

using namespace tessel;  // the messages

/// How long a request for the leader's address waits while no leader is known.
constexpr auto kLeaderLimit = std::chrono::seconds(10);
/// The largest blob, in bytes; the client has the same limit.
constexpr std::uint64_t kMaxBlobSize = std::uint64_t{20} << 20U;

/// Returns: the status for a result of the pool.
std::uint32_t StatusOf(int result) {
  switch (result) {
    case 0:
      return VYN_OK;
    case kBmNotEnoughCapacity:
      return VYN_ERR_OUT_OF_POOL_MEMORY;
    case -ENOENT:
      return kStatusNotRegistered;
    case -EACCES:
      return kStatusWrongToken;
    case kBmNamespaceInvalid:
      return kStatusInvalidRequest;
    default:
      VYN_LOG_ERROR("The pool of this node failed with " << result);
      return kStatusFabric;
  }
}

rpc::ServerOptions ServerOptionsOf(const NodeServerOptions& options) {
  rpc::ServerOptions server = options.server;
  server.mReport = [](const std::string& line) { VYN_LOG_WARN("Node server: " << line); };
  return server;
}

/// The inner id of a blob is BlobHash(its object id) xor BagHash(its bag id).
std::uint64_t BlobHash(const std::string& bmId) {
  std::array<unsigned char, crypto_hash_sha256_BYTES> digest{};
  crypto_hash_sha256(digest.data(), reinterpret_cast<const unsigned char*>(bmId.data()), bmId.size());
  std::uint64_t hash = 0;
  std::memcpy(&hash, digest.data(), sizeof(hash));
  return hash;
}

std::uint64_t BagHash(std::uint32_t bagId) {
  return bagId * 0x9E3779B97F4A7C15ULL;  // 2^64 / golden ratio: the usual factor of multiplicative hashing
}

/// Whether the pool accepts this name and this token.
bool CanRegister(const std::string& application, const std::string& token) {
  return IsApplication(application) && token.size() <= fabric::kMaxTokenLength;
}

}  // namespace

NodeServer::NodeServer(NodeServerOptions options, fabric::FabricNode& fabric)
    : mOptions(std::move(options)),
      mFabric(fabric),
      mVariables(mOptions.lookUp, mOptions.mayAnswer, std::max(1U, (mOptions.server.mWorkerThreads + 1) / 2)),
      mServer(ServerOptionsOf(mOptions)) {
  RegisterOperations();
}

NodeServer::~NodeServer() { Stop(); }

bool NodeServer::Start(std::string& error) {
  if (!mServer.Start("127.0.0.1", mOptions.port)) {
    error = "the node server cannot listen on 127.0.0.1:" + std::to_string(mOptions.port) + ": " +
            rpc::Server::mLastErrorMessage;
    return false;
  }
  return true;
}

void NodeServer::Stop() {
  mStopping = true;
  mServer.Stop();
}

void NodeServer::RegisterOperations() {
  RefuseAll(mServer, kStatusUnknownOperation);
  Serve<ApplicationRegisterRequest, NodeIdResponse>(
      mServer, ShuffleServer::APP_REGISTER, "APP_REGISTER",
      [this](auto& request, auto& response, const std::string& peer) {
        return RegisterApplication(request, response, peer);
      });
  ServeWithoutReply<ApplicationRegisterRequest>(
      mServer, ShuffleServer::APP_UNREGISTER, "APP_UNREGISTER",
      [this](auto& request, const std::string& peer) { return UnregisterApplication(request, peer); });
  Serve<BlobCreateRequest, ShuffleBlob>(
      mServer, ShuffleServer::BLOB_CREATE, "BLOB_CREATE",
      [this](auto& request, auto& response, const std::string& peer) {
        return CreateBlob(request, response, peer);
      },
      [this](const auto& request, const auto& response) {
        TakeBack("BLOB_CREATE", request.ns, {response.blobText});
      });
  ServeWithoutReply<BlobBatchDeleteRequest>(
      mServer, ShuffleServer::BLOB_BATCH_DELETE, "BLOB_BATCH_DELETE",
      [this](auto& request, const std::string& peer) { return DeleteBlobs(request, peer); });
  for (const std::uint16_t code : {ShuffleServer::LOCAL_BLOB_GET, ShuffleServer::LOCAL_BLOB_COMMIT}) {
    mServer.Register(
        rpc::MessageId(code),
        [code](const auto& context, const auto&) {
          common::RpcEngine::SyncRpcReply(code, context, kStatusNotServed, nullptr, 0, 0);
        },
        rpc::HandlerKind::kQuick);
  }
  Serve<MetaLeaderInformation, MetaLeaderInformation>(
      mServer, ShuffleServer::META_LEADER_INFO, "META_LEADER_INFO",
      [this](auto&, auto& response, const std::string&) -> std::uint32_t {
        // An executor sends this request once, perhaps while the cluster elects its first leader. So wait.
        response.metaLeaderInfo = AwaitLeader(kLeaderLimit, [this] { return !mStopping; });
        return response.metaLeaderInfo.empty() ? kStatusNoLeader : VYN_OK;
      });
  Serve<BroadcastBlockBatch, BroadcastBlockInfo>(
      mServer, ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, "BROADCAST_BLOCK_BATCH_CREATE",
      [this](auto& request, auto& response, const std::string&) { return CreateBlocks(request, response); },
      [this](const auto& request, const auto& response) {
        TakeBack("BROADCAST_BLOCK_BATCH_CREATE", request.appId, response.bmIds);
      });
  ServeRequests<BroadcastVar>(mServer, ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH,
                              "BROADCAST_BLOCK_BATCH_FETCH",
                              [this](const common::Ref<BroadcastVar>& request, const Caller& caller) {
                                FetchBlocks(*request, caller);
                              });
}

bool NodeServer::IsRegistered(const std::string& application) const {
  return mFabric.CheckToken(application, "") != -ENOENT;
}

std::uint64_t NodeServer::ObjectsOf(const std::string& application) const {
  for (const fabric::NamespaceInfo& info : mFabric.Namespaces()) {
    if (info.name == application) {
      return info.objects;
    }
  }
  return 0;
}

class NodeServer::QuotaReservation {
 public:
  QuotaReservation(NodeServer& server, std::string application)
      : mServer(server), mApplication(std::move(application)) {}
  ~QuotaReservation() { Release(mCount); }
  QuotaReservation(const QuotaReservation&) = delete;
  QuotaReservation& operator=(const QuotaReservation&) = delete;

  /// Reserves `count` objects. Returns: false if the application would exceed maxObjects.
  bool Reserve(std::uint64_t count) {
    sync::MutexLock lock(mServer.mReservedMutex);
    std::uint64_t& reserved = mServer.mReserved[mApplication];
    const bool allowed = mServer.ObjectsOf(mApplication) + reserved + count <= mServer.mOptions.maxObjects;
    mCount = allowed ? count : 0;
    reserved += mCount;
    return allowed;
  }
  /// Releases `count` reserved objects, which the pool counts from now on.
  void Release(std::uint64_t count) {
    sync::MutexLock lock(mServer.mReservedMutex);
    mCount -= count;
    const auto reserved = mServer.mReserved.find(mApplication);
    if (reserved != mServer.mReserved.end() && (reserved->second -= count) == 0) {
      mServer.mReserved.erase(reserved);
    }
  }

 private:
  NodeServer& mServer;
  const std::string mApplication;
  std::uint64_t mCount = 0;
};

std::uint32_t NodeServer::CheckToken(const std::string& application, const std::string& token,
                                     const char* operation, const std::string& peer) const {
  const std::uint32_t status = StatusOf(mFabric.CheckToken(application, token));
  if (status == kStatusWrongToken) {
    Audit(peer, operation, application, status);
  }
  return status;
}

std::uint32_t NodeServer::RegisterApplication(ApplicationRegisterRequest& request, NodeIdResponse& response,
                                              const std::string& peer) {
  if (!CanRegister(request.ns, request.token)) {
    return kStatusInvalidRequest;
  }
  std::uint32_t status = FixToken(request.ns, request.token);
  // An earlier application of this name has ended, but this node may still hold its memory and reclaim
  // entries. Handle them first: a later Drain would destroy the namespace of the new application.
  if (!Failed(status) && mOptions.reclaim && !mOptions.reclaim(request.ns)) {
    status = kStatusStore;
  }
  if (!Failed(status)) {
    const int result = mFabric.CreateNamespace(request.ns, request.token);
    status = result == kBmNamespaceExists ? VYN_OK : StatusOf(result);
  }
  Audit(peer, "register_application", request.ns, status);
  if (Failed(status)) {
    return status;
  }
  response.nodeId = mOptions.nodeId;
  response.isMfNode = true;
  return VYN_OK;
}

std::uint32_t NodeServer::UnregisterApplication(ApplicationRegisterRequest& request,
                                                const std::string& peer) {
  if (!IsApplication(request.ns)) {
    return kStatusInvalidRequest;  // without an audit line, which could not show such a name
  }
  const std::uint32_t status = StatusOf(mFabric.CheckToken(request.ns, request.token));
  Audit(peer, "unregister_application", request.ns, status);
  if (!Failed(status)) {
    mVariables.Forget(request.ns);
  }
  return status;
}

std::uint32_t NodeServer::CreateBlocks(BroadcastBlockBatch& request, BroadcastBlockInfo& response) {
  if (!IsApplication(request.appId) || request.sizes.empty() || request.sizes.size() > kMaxBlocks) {
    return kStatusInvalidRequest;
  }
  if (std::find(request.sizes.begin(), request.sizes.end(), 0U) != request.sizes.end()) {
    return kStatusInvalidRequest;
  }
  if (!IsRegistered(request.appId)) {
    return kStatusNotRegistered;
  }
  QuotaReservation quota(*this, request.appId);
  if (!quota.Reserve(request.sizes.size())) {
    return kStatusLimit;
  }
  response.appId = request.appId;
  response.broadcastId = request.broadcastId;
  response.nodeId = mOptions.nodeId;
  response.sizes = request.sizes;
  response.bmIds.reserve(request.sizes.size());
  std::uint32_t status = VYN_OK;
  try {
    for (std::size_t i = 0; !Failed(status) && i < request.sizes.size(); ++i) {
      std::string bmId;
      status = StatusOf(mFabric.Allocate(request.appId, request.sizes[i], bmId));
      if (!Failed(status)) {
        quota.Release(1);
        response.bmIds.push_back(std::move(bmId));
      }
    }
    if (!Failed(status) && mOptions.created) {
      mOptions.created(request.appId, request.broadcastId, response.bmIds);
    }
  } catch (...) {  // probably bad_alloc, for which the status is 2000057
    status = common::StatusOfException("CreateBlocks");
  }
  if (Failed(status)) {
    // The caller gets all blocks or none, so free those that were allocated.
    mFabric.FreeBatch(request.appId, response.bmIds);
  }
  return status;
}

void NodeServer::TakeBack(const char* operation, const std::string& application,
                          const std::vector<std::string>& bmIds) {
  VYN_LOG_WARN("The reply to " << operation << " of application " << application
                               << " did not reach its caller; freeing " << bmIds.size() << " objects");
  mOptions.giveBack(application, bmIds);
}

void NodeServer::FetchBlocks(const BroadcastVar& request, const Caller& caller) {
  if (!IsApplication(request.appId)) {
    caller.Refuse(kStatusInvalidRequest);
    return;
  }
  if (!IsRegistered(request.appId)) {
    caller.Refuse(kStatusNotRegistered);
    return;
  }
  mVariables.Fetch(request.appId, request.broadcastId, caller);
}

std::uint32_t NodeServer::CreateBlob(BlobCreateRequest& request, ShuffleBlob& response,
                                     const std::string& peer) {
  if (!IsApplication(request.ns) || !IsName(request.bagName) || request.blobSize == 0 ||
      request.blobSize > kMaxBlobSize) {
    return kStatusInvalidRequest;
  }
  if (const std::uint32_t status = CheckToken(request.ns, request.token, "create_blob", peer);
      Failed(status)) {
    return status;
  }
  QuotaReservation quota(*this, request.ns);
  if (!quota.Reserve(1)) {
    return kStatusLimit;
  }
  std::string bmId;
  if (const std::uint32_t status = StatusOf(mFabric.Allocate(request.ns, request.blobSize, bmId));
      Failed(status)) {
    return status;
  }
  common::Ref<ShuffleBlobId> id(new (std::nothrow) ShuffleBlobId());
  if (id == nullptr) {
    mFabric.Free(request.ns, bmId);
    return VYN_ERR_NULL_POINTER;
  }
  id->bagId = request.blobNumber + 1U;  // clients reject 0 as an id
  id->innerId = BlobHash(bmId) ^ BagHash(id->bagId);
  response.mId = id;
  response.blobText = bmId;
  return VYN_OK;
}

std::uint32_t NodeServer::DeleteBlobs(BlobBatchDeleteRequest& request, const std::string& peer) {
  if (const std::uint32_t status = CheckToken(request.ns, request.token, "delete_blobs", peer);
      Failed(status)) {
    return status;
  }
  std::unordered_set<std::uint64_t> wanted;
  for (const auto& id : request.blobIdList) {
    wanted.insert(id->innerId ^ BagHash(id->bagId));
  }
  std::vector<fabric::ObjectInfo> objects;
  if (const std::uint32_t status = StatusOf(mFabric.Objects(request.ns, objects)); Failed(status)) {
    return status;
  }
  std::vector<std::string> bmIds;
  for (const fabric::ObjectInfo& object : objects) {
    if (wanted.count(BlobHash(object.id)) != 0) {
      bmIds.push_back(object.id);
    }
  }
  mFabric.FreeBatch(request.ns, bmIds);  // ignores objects that do not exist any more, so a retry succeeds
  return VYN_OK;
}

void NodeServer::Forget(const std::string& application, std::uint32_t id) {
  mFabric.DropCopies(mVariables.Forget(application, id));
}

void NodeServer::Forget(const std::string& application) {
  mVariables.Forget(application);
  mFabric.DropCopies(application);
}

void NodeServer::ForgetAll() { mFabric.DropCopies(mVariables.ForgetAll()); }

}  // namespace vyn::services
