#include "services/metadata/metadata_service.h"

#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/message/heart_beat_message.h"
#include "common/util/clock.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"
#include "services/common/rpc_handlers.h"
#include "services/metadata/nodes/node_selection.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"

#include <unistd.h>

#include <algorithm>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace vyn::services {

namespace {

using common::HeartBeatMessage;
using namespace tessel;  // the messages

/// The time between two checks for silent applications.
constexpr auto kSilencePeriod = std::chrono::milliseconds(500);
/// A check that comes this much later than scheduled means that the process was suspended.
constexpr auto kSuspension = std::chrono::seconds(1);
/// If the view of the fabric has no suitable node and is older than this, it is read again.
constexpr auto kViewAge = std::chrono::milliseconds(100);
/// The most names of one request.
constexpr std::size_t kMaxNames = 10000;
/// Removes the padding that a driver outside the fabric sends after each block id. Returns: 0 if the block
/// list is valid.
std::uint32_t Normalize(BroadcastBlockInfo& info) {
  if (!IsApplication(info.appId) || info.bmIds.size() != info.sizes.size()) {
    return kStatusInvalidRequest;
  }
  for (std::string& bmId : info.bmIds) {
    if (const std::size_t end = bmId.find('\0'); end != std::string::npos) {
      bmId.resize(end);
    }
    if (!fabric::IsObjectId(bmId)) {
      return kStatusInvalidRequest;
    }
    if (fabric::OwnerOf(bmId) != info.nodeId) {
      return kStatusWrongOwner;
    }
  }
  return VYN_OK;
}

/// Removes the padding after the writer's block id. Returns: whether the request is valid.
bool NormalizeClaim(VariableClaim& claim) {
  if (const std::size_t end = claim.writer.find('\0'); end != std::string::npos) {
    claim.writer.resize(end);
  }
  return IsApplication(claim.appId) && fabric::IsObjectId(claim.writer);
}

/// Adds the sizes. Returns: false when the sum is more than 64 bits can hold.
bool AddSizes(const std::vector<std::uint64_t>& sizes, std::uint64_t& total) {
  total = 0;
  for (const std::uint64_t size : sizes) {
    if (total + size < total) {
      return false;
    }
    total += size;
  }
  return true;
}

rpc::ServerOptions ServerOptionsOf(const MetadataServiceOptions& options) {
  rpc::ServerOptions server = options.server;
  server.mReport = [](const std::string& line) { VYN_LOG_WARN("Metadata service: " << line); };
  return server;
}

}  // namespace

MetadataService::MetadataService(MetadataServiceOptions options, FabricView& view)
    : mOptions(std::move(options)), mView(view), mState(mOptions.limits), mServer(ServerOptionsOf(mOptions)) {
  RegisterOperations();
}

MetadataService::~MetadataService() { Stop(); }

std::uint32_t MetadataService::Start(std::chrono::milliseconds lease) {
  if (!mServer.Start(mOptions.address, mOptions.port)) {
    VYN_LOG_ERROR("The metadata service cannot listen at " << mOptions.address << ":" << mOptions.port << ": "
                                                           << rpc::Server::mLastErrorMessage);
    return VYN_ERR_GENERIC;
  }
  std::chrono::steady_clock::time_point asked;
  const auto extra =
      std::max(mOptions.findLeaderTime - mOptions.applicationTimeout, std::chrono::milliseconds());
  if (const std::uint32_t status = mState.Load(&asked, extra); Failed(status)) {
    VYN_LOG_ERROR("The metadata service cannot read its records: " << status);
    Stop();
    return status;
  }
  ServeUntil(asked + lease);
  // The view may be old. If this Refresh fails, the view's thread repeats it soon.
  mView.SetServing(true);
  static_cast<void>(mView.Refresh());
  {
    sync::MutexLock lock(mMutex);
    mReady = true;
  }
  mChanged.NotifyAll();
  mLastCheck = common::SteadyNow();
  mSilenceTask.Start({"The applications and deletions could not be checked", kSilencePeriod},
                     [this] { WatchSilence(); });
  VYN_LOG_INFO("The metadata service serves at " << mOptions.address << ":" << Port());
  return VYN_OK;
}

void MetadataService::Stop() {
  {
    sync::MutexLock lock(mMutex);
    mStopping = true;
  }
  mChanged.NotifyAll();
  mSilenceTask.RequestStop();
  mView.SetServing(false);
  mServer.Stop();
  mSilenceTask.Stop();
}

std::uint32_t MetadataService::AwaitReady() {
  sync::MutexLock lock(mMutex);
  const bool decided = common::WaitFor(mChanged, lock, mOptions.readyTimeout,
                                       [this]() VYN_REQUIRES(mMutex) { return mReady || mStopping; });
  // For the client this status is a lost connection: it asks for the leader again and repeats the call.
  return decided && mReady && !mStopping && HasLease() ? VYN_OK : kStatusNotLeading;
}

template <typename Work>
std::uint32_t MetadataService::WhenReady(Work work) {
  if (mLeadershipLost.load(std::memory_order_acquire)) {
    return kStatusNotLeading;
  }
  std::uint32_t status = AwaitReady();
  if (!Failed(status)) {
    status = work();
    if (status == kStatusNotLeading) {
      mLeadershipLost.store(true, std::memory_order_release);
    }
    if (!HasLease()) {
      return kStatusNotLeading;  // without the lease a successor may have changed what `work` has read
    }
  }
  return status == kStatusUnanswered ? kStatusNotLeading : status;
}

std::vector<cluster::NodeInfo> MetadataService::Select(const std::vector<std::string>& candidates, bool one) {
  auto nodes = SelectNodes(mView.Live(), candidates, one);
  if (nodes.empty() && mView.RefreshOlderThan(kViewAge)) {
    nodes = SelectNodes(mView.Live(), candidates, one);  // may now include a node that has just started
  }
  return nodes;
}

std::uint32_t MetadataService::CheckBlocks(BroadcastBlockInfo& info) {
  if (const std::uint32_t status = Normalize(info); Failed(status)) {
    return status;
  }
  std::uint64_t total = 0;
  cluster::NodeInfo node;
  const bool counted = AddSizes(info.sizes, total);
  if (!counted || (mView.Find(info.nodeId, node) && node.capacityA != 0 && total > node.capacityA)) {
    VYN_LOG_ERROR("Refused the blocks of variable " << info.broadcastId << " of " << info.appId
                                                    << ": the pool of node " << info.nodeId
                                                    << " cannot hold blocks of these sizes");
    return kStatusInvalidRequest;
  }
  return mOptions.sizesAtNode != nullptr && !info.bmIds.empty() ? CompareWithNode(info) : VYN_OK;
}

std::uint32_t MetadataService::CompareWithNode(const BroadcastBlockInfo& info) {
  std::string unused;
  if (mState.GetBlock(info.appId, info.broadcastId, 0, unused) == kStatusUnknownVariable) {
    return kStatusUnknownVariable;  // without a question to the node
  }
  const std::string name = "variable " + std::to_string(info.broadcastId) + " of " + info.appId;
  std::vector<std::uint64_t> sizes;
  const auto nodeId = static_cast<std::uint16_t>(info.nodeId);
  if (const int result = mOptions.sizesAtNode(nodeId, info.appId, info.bmIds, sizes); result != 0) {
    VYN_LOG_WARN("Refused the blocks of " << name << ": node " << nodeId
                                          << " did not tell which blocks it has, result " << result);
    return kStatusNodeUnreachable;
  }
  if (const auto [wanted, found] = std::mismatch(info.sizes.begin(), info.sizes.end(), sizes.begin());
      wanted != info.sizes.end()) {
    const auto index = static_cast<std::size_t>(wanted - info.sizes.begin());
    VYN_LOG_ERROR("Refused the blocks of "
                  << name << ": block " << index << " (" << info.bmIds[index] << ") has "
                  << (*found == fabric::kNoObject ? "gone from" : std::to_string(*found) + " bytes at")
                  << " node " << nodeId << ", the list says " << *wanted << " bytes");
    return kStatusBlocksDiffer;
  }
  if (std::unordered_set<std::string_view>(info.bmIds.begin(), info.bmIds.end()).size() !=
      info.bmIds.size()) {
    VYN_LOG_ERROR("Refused the blocks of " << name << ": the list has a block twice");
    return kStatusBlocksDiffer;
  }
  return VYN_OK;
}

void MetadataService::RegisterOperations() {
  RefuseAll(mServer, kStatusUnknownOperation);
  RegisterVariableOperations();
  RegisterNodeOperations();

  ServeWithoutReply<ShuffleApplication>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::APP_REMOVE), "APP_REMOVE",
      [this](ShuffleApplication& request, const std::string& peer) {
        return WhenReady([&]() -> std::uint32_t {
          if (!IsApplication(request.appId)) {
            return kStatusInvalidRequest;
          }
          const std::uint32_t status = mState.RemoveApplication(request.appId);
          Audit(peer, "remove_application", request.appId, status);
          return status;
        });
      });
  Serve<ShuffleApplicationIdList, ShuffleApplicationIdList>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::CHECK_VALID_APP), "CHECK_VALID_APP",
      [this](ShuffleApplicationIdList& request, ShuffleApplicationIdList& response, const std::string&) {
        return WhenReady([&]() -> std::uint32_t {
          if (request.appIds.size() > kMaxNames) {
            return kStatusTooLarge;
          }
          std::erase_if(request.appIds, [](const std::string& name) { return !IsApplication(name); });
          return mState.FilterKnown(request.appIds, response.appIds);
        });
      });
  ServeWithoutReply<HeartBeatMessage>(mServer, static_cast<std::uint16_t>(ShuffleMeta::HEART_BEAT),
                                      "HEART_BEAT", [this](HeartBeatMessage& request, const std::string&) {
                                        return WhenReady([&]() -> std::uint32_t {
                                          // A heartbeat with alive = false is the last one of its process. The time-out counts from it.
                                          return IsApplication(request.ns)
                                                     ? mState.HeartBeat(request.ns, request.isAlive)
                                                     : kStatusInvalidRequest;
                                        });
                                      });
}

void MetadataService::RegisterVariableOperations() {
  ServeWithoutReply<BroadcastVar>(mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_NEW),
                                  "BROADCAST_VAR_NEW", [this](BroadcastVar& request, const std::string&) {
                                    return WhenReady([&]() -> std::uint32_t {
                                      return IsApplication(request.appId)
                                                 ? mState.NewVariable(request.appId, request.broadcastId,
                                                                      request.blockNum)
                                                 : kStatusInvalidRequest;
                                    });
                                  });
  ServeWithoutReply<VariableClaim>(mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_CLAIM),
                                   "BROADCAST_VAR_CLAIM", [this](VariableClaim& request, const std::string&) {
                                     return WhenReady([&]() -> std::uint32_t {
                                       return NormalizeClaim(request)
                                                  ? mState.NewVariable(request.appId, request.broadcastId,
                                                                       request.blockNum, request.writer)
                                                  : kStatusInvalidRequest;
                                     });
                                   });
  ServeWithoutReply<VariableClaim>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_GIVE_UP), "BROADCAST_VAR_GIVE_UP",
      [this](VariableClaim& request, const std::string& peer) {
        return WhenReady([&]() -> std::uint32_t {
          if (!NormalizeClaim(request)) {
            return kStatusInvalidRequest;
          }
          const std::uint32_t status =
              mState.GiveUp(request.appId, request.broadcastId, request.writer, request.published);
          Audit(peer, "give_up_variable", request.appId + "/" + std::to_string(request.broadcastId), status);
          return status;
        });
      });
  ServeWithoutReply<BroadcastVar>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_REMOVE), "BROADCAST_VAR_REMOVE",
      [this](BroadcastVar& request, const std::string& peer) {
        return WhenReady([&]() -> std::uint32_t {
          if (!IsApplication(request.appId)) {
            return kStatusInvalidRequest;
          }
          const std::uint32_t status =
              mState.RemoveVariable(request.appId, request.broadcastId, request.blockNum == kOnlyUnpublished);
          Audit(peer, "remove_variable", request.appId + "/" + std::to_string(request.broadcastId), status);
          return status;
        });
      });
  Serve<BroadcastVar, BroadcastBlockInfo>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_GET), "BROADCAST_VAR_GET",
      [this](BroadcastVar& request, BroadcastBlockInfo& response, const std::string&) {
        return WhenReady([&] { return mState.GetVariable(request.appId, request.broadcastId, response); });
      });
  ServeWithoutReply<BroadcastBlockInfo>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_VAR_INFO_ADD), "BROADCAST_VAR_INFO_ADD",
      [this](BroadcastBlockInfo& request, const std::string&) {
        return WhenReady([&]() -> std::uint32_t {
          const std::uint32_t status = CheckBlocks(request);
          return Failed(status) ? status : mState.SetBlocks(request);
        });
      });
  ServeWithoutReply<BroadcastBlockInfo>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_BLOCK_INFO_ADD), "BROADCAST_BLOCK_INFO_ADD",
      [this](BroadcastBlockInfo& request, const std::string&) {
        return WhenReady([&]() -> std::uint32_t {
          const std::uint32_t status = CheckBlocks(request);
          return Failed(status) ? status : mState.AddBlocks(request);
        });
      });
  Serve<BlockInfoRequest, BlockBmInfo>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_BLOCK_INFO_GET), "BROADCAST_BLOCK_INFO_GET",
      [this](BlockInfoRequest& request, BlockBmInfo& response, const std::string&) {
        return WhenReady([&] {
          response.bmIds.resize(1);
          return mState.GetBlock(request.appId, request.broadcastId, request.blockIndex, response.bmIds[0]);
        });
      });
}

void MetadataService::RegisterNodeOperations() {
  Serve<BroadcastRemoteNodeReq, BroadcastRemoteNodeRsp>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::BROADCAST_REMOTE_NODE_GET),
      "BROADCAST_REMOTE_NODE_GET",
      [this](BroadcastRemoteNodeReq& request, BroadcastRemoteNodeRsp& response, const std::string&) {
        return WhenReady([&] {
          for (const auto& node : Select(request.candidateNodes, request.selectFlag)) {
            response.selectedNodes.push_back(node.ip + ":" + std::to_string(node.auxValue));
            response.nodeIds.push_back(static_cast<std::uint16_t>(node.nodeId));
            response.hostNames.push_back(node.hostName);
          }
          return VYN_OK;
        });
      });
  Serve<BroadcastRemoteNodeReq, NodeIdResponse>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::IS_MF_NODE), "IS_MF_NODE",
      [this](BroadcastRemoteNodeReq& request, NodeIdResponse& response, const std::string&) {
        return WhenReady([&]() -> std::uint32_t {
          if (request.candidateNodes.empty()) {
            return kStatusInvalidRequest;
          }
          const auto nodes = Select(request.candidateNodes, false);
          response.isMfNode = !nodes.empty();
          if (response.isMfNode) {
            response.nodeId = nodes.front().nodeId;
          }
          return VYN_OK;
        });
      });
  Serve<ShuffleApplication, ClusterCapacityMessage>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::GET_MF_CAPACITY_LIST), "GET_MF_CAPACITY_LIST",
      [this](ShuffleApplication& request, ClusterCapacityMessage& response, const std::string&) {
        return WhenReady([&]() -> std::uint32_t {
          response.ns = request.appId;
          for (const auto& node : mView.Live()) {
            common::Ref<CapacityInfo> info(new (std::nothrow) CapacityInfo());
            VYN_CHECK_POINTER(info);
            info->host = node.hostName;
            info->capacityA = node.capacityA;
            info->capacityB = node.capacityB;
            response.caps.push_back(info);
          }
          return VYN_OK;
        });
      });
  Serve<ShuffleApplication, HostMessage>(
      mServer, static_cast<std::uint16_t>(ShuffleMeta::GET_UNAVAILABLE_NODE_LIST),
      "GET_UNAVAILABLE_NODE_LIST",
      [this](ShuffleApplication& request, HostMessage& response, const std::string&) {
        return WhenReady([&] {
          response.ns = request.appId;
          auto unavailable = mView.Registered();
          for (const auto& node : mView.Live()) {
            unavailable.erase(node.nodeId);
          }
          for (const auto& [id, host] : unavailable) {
            response.hosts.push_back(host);
          }
          return VYN_OK;
        });
      });
}

void MetadataService::WatchSilence() {
  if (LeadershipLost()) {
    return;
  }
  if (!HasLease()) {
    return;  // heartbeats are refused meanwhile, so their absence means nothing
  }
  // After a suspension the heartbeats of that time are still unread in the sockets. In a time without the
  // lease they were refused.
  const auto now = common::SteadyNow();
  if (now - mLastCheck > kSilencePeriod + kSuspension) {
    mState.ExtendHeartbeatDeadlines(now - mLastCheck);
  }
  mLastCheck = now;
  EndSilent();
  mState.SweepDeleted();
}

void MetadataService::EndSilent() {
  for (const std::string& application : mState.Silent(mOptions.applicationTimeout)) {
    bool removed = false;
    const std::uint32_t status = mState.Expire(application, mOptions.applicationTimeout, removed);
    if (status == kStatusNotLeading) {
      mLeadershipLost.store(true, std::memory_order_release);
    }
    if (status == kStatusNotLeading || status == kStatusUnanswered) {
      return;  // the next check or the next leader tries again
    }
    if (removed) {  // false if it has sent a heartbeat since Silent
      VYN_LOG_WARN("Application " << application << " has sent no heartbeat for "
                                  << mOptions.applicationTimeout.count() << " ms, it was removed");
      Audit(std::to_string(getpid()), "expire_application", application, status);
    }
  }
}

}  // namespace vyn::services
