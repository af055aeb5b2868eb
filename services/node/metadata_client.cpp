#include "services/node/metadata_client.h"

#include "cluster/meta_node_info.h"
#include "common/log/logging.h"
#include "common/wait/retry.h"
#include "services/common/service_status.h"
#include "tessel/message/operation_codes.h"

#include <array>

namespace vyn::services {

namespace {

constexpr auto kLeaderPause = std::chrono::milliseconds(20);
constexpr auto kRetryPause = std::chrono::seconds(1);

/// Whether a retry may succeed, at another leader or at the same one later.
bool IsTransient(std::uint32_t status) {
  return status == VYN_ERR_RPC_TRANSPORT_A || status == VYN_ERR_RPC_TRANSPORT_B || status == kStatusNoLeader;
}

}  // namespace

std::string KnownLeader() {
  const auto record = common::MetaNodeInfo::GetInstance();
  if (record == nullptr) {
    return {};
  }
  sync::ReaderLock lock(record->mLeaderLock);
  return record->mLeaderAddress;
}

std::string AwaitLeader(std::chrono::milliseconds limit, const std::function<bool()>& wanted) {
  auto retry = common::Retry::For(limit, kLeaderPause);
  std::string leader;
  do {
    leader = KnownLeader();
  } while (leader.empty() && wanted() && retry.Again());
  return leader;
}

std::uint32_t MetadataClient::Engine(common::Ref<tessel::ShuffleMetaRPCEngine>& engine) {
  {
    sync::MutexLock lock(mMutex);
    engine = mEngine;
  }
  if (engine != nullptr) {
    return VYN_OK;
  }
  if (KnownLeader().empty()) {
    return kStatusNoLeader;
  }
  engine = tessel::ShuffleMetaRPCEngine::CreateInstance(mLimits.connect.count(), false, nullptr);
  VYN_CHECK_POINTER(engine);
  // If the leader does not answer now, the client still has a connection pool, and each call finds the leader
  // again. Only a client without a pool is useless.
  const std::uint32_t status = engine->Initialize();
  if (engine->EnginePool() == nullptr) {
    return Failed(status) ? status : kStatusNoLeader;
  }
  sync::MutexLock lock(mMutex);
  if (mEngine == nullptr) {
    mEngine = engine;
  }
  engine = mEngine;  // another thread may have created a client meanwhile; all threads share the first
  return VYN_OK;
}

std::uint32_t MetadataClient::Ask(short operation, const common::Ref<common::BaseMessage>& request,
                                  const common::Ref<common::BaseMessage>& response) {
  common::Ref<tessel::ShuffleMetaRPCEngine> engine;
  std::uint32_t status = Engine(engine);
  if (!Failed(status)) {
    status = engine->RefreshMasterNodeInfo(true);
  }
  // A look-up that finds nothing is no fault.
  constexpr std::array<std::uint32_t, 2> kNotThere{kStatusUnknownVariable, kStatusNotReady};
  return Failed(status) ? status
                        : engine->SendCall(static_cast<std::uint16_t>(operation), request, response,
                                           mLimits.call.count(), kNotThere);
}

std::uint32_t MetadataClient::FindBlock(const std::string& application, std::uint32_t id,
                                        std::uint32_t index) {
  const common::Ref<tessel::BlockInfoRequest> request(new tessel::BlockInfoRequest());
  request->appId = application;
  request->broadcastId = id;
  request->blockIndex = index;
  const common::Ref<tessel::BlockBmInfo> response(new tessel::BlockBmInfo());
  return Ask(ShuffleMeta::BROADCAST_BLOCK_INFO_GET, request, response);
}

std::uint32_t MetadataClient::RemoveUnpublished(const std::string& application, std::uint32_t id) {
  const common::Ref<tessel::BroadcastVar> request(new tessel::BroadcastVar());
  request->appId = application;
  request->broadcastId = id;
  request->blockNum = tessel::kOnlyUnpublished;
  return Ask(ShuffleMeta::BROADCAST_VAR_REMOVE, request, common::BaseMessage::gNullPtr);
}

std::uint32_t MetadataClient::GiveUp(const std::string& application, std::uint32_t id,
                                     const std::string& writer) {
  const common::Ref<tessel::VariableClaim> request(new tessel::VariableClaim());
  request->appId = application;
  request->broadcastId = id;
  request->writer = writer;
  return Ask(ShuffleMeta::BROADCAST_VAR_GIVE_UP, request, common::BaseMessage::gNullPtr);
}

std::uint32_t MetadataClient::LookUp(const std::string& application, std::uint32_t id,
                                     tessel::BroadcastBlockInfo& info) {
  common::Ref<tessel::BroadcastVar> request(new (std::nothrow) tessel::BroadcastVar());
  common::Ref<tessel::BroadcastBlockInfo> response(new (std::nothrow) tessel::BroadcastBlockInfo());
  VYN_CHECK_POINTER(request);
  VYN_CHECK_POINTER(response);
  request->appId = application;
  request->broadcastId = id;
  auto retry = common::Retry::For(mLimits.lookUp, kRetryPause);
  std::uint32_t status = VYN_OK;
  do {
    status = Ask(ShuffleMeta::BROADCAST_VAR_GET, request, response);
  } while (IsTransient(status) && !mStopping.load(std::memory_order_relaxed) && retry.Again());
  if (Failed(status)) {
    return status;
  }
  if (response->appId != application || response->broadcastId != id ||
      response->bmIds.size() != response->sizes.size()) {
    VYN_LOG_ERROR("The metadata leader was asked for variable "
                  << id << " of " << application << " and answered with variable " << response->broadcastId
                  << " of " << response->appId);
    return VYN_ERR_MESSAGE_DECODE;
  }
  info.appId = std::move(response->appId);
  info.broadcastId = response->broadcastId;
  info.nodeId = response->nodeId;
  info.bmIds = std::move(response->bmIds);
  info.sizes = std::move(response->sizes);
  return VYN_OK;
}

}  // namespace vyn::services
