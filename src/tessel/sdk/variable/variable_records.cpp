#include "tessel/sdk/variable/variable_records.h"

#include "common/rpc/network.h"
#include "platform/fabric/client/bm_functions.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/operation_codes.h"
#include "tessel/message/service_status.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "vyn/status.h"
#include "vyn/variable.h"

#include <algorithm>
#include <array>
#include <utility>

namespace vyn::tessel {

namespace {

using common::BaseMessage;
using common::Ref;

/// Answers to a look-up that are no fault.
constexpr std::array<std::uint32_t, 2> kNotThere{VYN_VARIABLE_UNKNOWN, VYN_VARIABLE_NOT_PUBLISHED};

/// Answers to a claim after which the caller tries again, the second in the way of older builds.
constexpr std::array<std::uint32_t, 2> kClaimRefused{service_status::kStatusNotForgotten,
                                                     service_status::kStatusUnknownOperation};

/// Answers to a give-up of a record that a leader of an older build has made, and from such a leader.
constexpr std::array<std::uint32_t, 2> kNoWriter{service_status::kStatusNotReady,
                                                 service_status::kStatusUnknownOperation};

std::uint32_t AskLeader(short operation, const Ref<BaseMessage>& request, const Ref<BaseMessage>& response,
                        common::ExpectedRefusals expected = {}) {
  const auto engine = ShuffleMetaRPCEngine::GetInstance();
  return engine == nullptr ? VYN_ERR_BC_META_CLIENT
                           : engine->SendAndWaitReply(operation, request, response, {}, expected);
}

std::uint32_t AskNode(std::uint16_t operation, const Ref<BaseMessage>& request,
                      const Ref<BaseMessage>& response, std::int64_t timeout,
                      common::ExpectedRefusals expected = {}) {
  const auto engine = ShuffleServerRPCEngine::GetInstance(true);
  return engine == nullptr ? VYN_ERR_BC_SERVER_CLIENT
                           : engine->SendCall(operation, request, response, timeout, expected);
}

Ref<BroadcastVar> RequestFor(const VariableKey& key) {
  Ref<BroadcastVar> request(new BroadcastVar);
  request->appId = key.application;
  request->broadcastId = key.id;
  return request;
}

Ref<VariableClaim> ClaimOf(const VariableKey& key, const VariableBlocks& blocks) {
  Ref<VariableClaim> request(new VariableClaim);
  request->appId = key.application;
  request->broadcastId = key.id;
  request->blockNum = static_cast<std::uint32_t>(blocks.ids.size());
  request->writer = blocks.ids.front();
  return request;
}

/// Reads the blocks out of an answer. Returns: 0, or VYN_ERR_MESSAGE_DECODE for an answer that is not about
/// this variable, or whose lists do not fit.
std::uint32_t ReadBlocks(const VariableKey& key, BroadcastBlockInfo& answer, VariableBlocks& blocks) {
  bool fits = answer.appId == key.application && answer.broadcastId == key.id && !answer.bmIds.empty() &&
              answer.bmIds.size() == answer.sizes.size();
  for (const std::string& id : answer.bmIds) {
    fits = fits && id.size() == kBmIdLength;
  }
  if (!fits) {
    return VYN_ERR_MESSAGE_DECODE;
  }
  blocks.ids = std::move(answer.bmIds);
  blocks.sizes = std::move(answer.sizes);
  blocks.nodeId = answer.nodeId;
  return blocks.Total() == 0 ? VYN_ERR_MESSAGE_DECODE : VYN_OK;
}

}  // namespace

std::uint64_t VariableBlocks::Total() const {
  std::uint64_t total = 0;
  for (const std::uint64_t size : sizes) {
    if (total + size < total) {
      return 0;
    }
    total += size;
  }
  return total;
}

std::uint32_t LookUpAtLeader(const VariableKey& key, VariableBlocks& blocks) {
  const Ref<BroadcastBlockInfo> answer(new BroadcastBlockInfo);
  const std::uint32_t status = AskLeader(ShuffleMeta::BROADCAST_VAR_GET, RequestFor(key), answer, kNotThere);
  return Failed(status) ? status : ReadBlocks(key, *answer, blocks);
}

std::uint32_t LookUpAtNode(const VariableKey& key, VariableBlocks& blocks) {
  const Ref<BroadcastBlockInfo> answer(new BroadcastBlockInfo);
  const std::uint32_t status = AskNode(ShuffleServer::BROADCAST_BLOCK_BATCH_FETCH, RequestFor(key), answer,
                                       ShuffleServerRPCEngine::mBroadcastVarFetchTimeout, kNotThere);
  return Failed(status) ? status : ReadBlocks(key, *answer, blocks);
}

std::uint32_t MakeRecord(const VariableKey& key, const VariableBlocks& blocks) {
  const Ref<VariableClaim> claim = ClaimOf(key, blocks);
  const std::uint32_t status =
      AskLeader(ShuffleMeta::BROADCAST_VAR_CLAIM, claim, BaseMessage::gNullPtr, kClaimRefused);
  if (status != service_status::kStatusUnknownOperation) {
    return status;
  }
  // The leader is of an older build: its record names no writer.
  const auto request = RequestFor(key);
  request->blockNum = claim->blockNum;
  return AskLeader(ShuffleMeta::BROADCAST_VAR_NEW, request, BaseMessage::gNullPtr, kClaimRefused);
}

std::uint32_t GiveUpRecord(const VariableKey& key, const VariableBlocks& blocks) {
  const Ref<VariableClaim> request = ClaimOf(key, blocks);
  request->published = true;
  const std::uint32_t status =
      AskLeader(ShuffleMeta::BROADCAST_VAR_GIVE_UP, request, BaseMessage::gNullPtr, kNoWriter);
  if (std::find(kNoWriter.begin(), kNoWriter.end(), status) == kNoWriter.end()) {
    return status;
  }
  const auto removal = RequestFor(key);
  removal->blockNum = kOnlyUnpublished;
  return AskLeader(ShuffleMeta::BROADCAST_VAR_REMOVE, removal, BaseMessage::gNullPtr);
}

std::uint32_t CompleteRecord(const VariableKey& key, const VariableBlocks& blocks) {
  const Ref<BroadcastBlockInfo> request(new BroadcastBlockInfo);
  request->appId = key.application;
  request->broadcastId = key.id;
  request->bmIds = blocks.ids;
  request->sizes = blocks.sizes;
  request->nodeId = blocks.nodeId;
  return AskLeader(ShuffleMeta::BROADCAST_VAR_INFO_ADD, request, BaseMessage::gNullPtr);
}

std::uint32_t RemoveRecord(const VariableKey& key) {
  return AskLeader(ShuffleMeta::BROADCAST_VAR_REMOVE, RequestFor(key), BaseMessage::gNullPtr);
}

std::uint32_t AllocateAtNode(const VariableKey& key, VariableBlocks& blocks) {
  const Ref<BroadcastBlockBatch> request(new BroadcastBlockBatch);
  request->appId = key.application;
  request->broadcastId = key.id;
  request->sizes = blocks.sizes;
  const Ref<BroadcastBlockInfo> answer(new BroadcastBlockInfo);
  const std::uint32_t status = AskNode(ShuffleServer::BROADCAST_BLOCK_BATCH_CREATE, request, answer,
                                       ShuffleServerRPCEngine::mBroadcastVarCreateTimeout);
  if (Failed(status)) {
    return status;
  }
  return answer->sizes == blocks.sizes ? ReadBlocks(key, *answer, blocks) : VYN_ERR_MESSAGE_DECODE;
}

std::uint32_t ListNodes(const VariableKey& key, bool best, std::vector<NodeEndpoint>& nodes) {
  const Ref<BroadcastRemoteNodeReq> request(new BroadcastRemoteNodeReq);
  request->appId = key.application;
  request->selectFlag = best;
  const Ref<BroadcastRemoteNodeRsp> answer(new BroadcastRemoteNodeRsp);
  if (const std::uint32_t status = AskLeader(ShuffleMeta::BROADCAST_REMOTE_NODE_GET, request, answer);
      Failed(status)) {
    return status;
  }
  for (std::size_t i = 0; i < std::min(answer->selectedNodes.size(), answer->nodeIds.size()); ++i) {
    NodeEndpoint place;
    short port = 0;
    if (const std::uint32_t status = common::SplitIpAndPort(answer->selectedNodes[i], place.ip, port);
        Failed(status)) {
      return status;
    }
    place.nodeId = answer->nodeIds[i];
    place.port = static_cast<std::uint16_t>(port);
    nodes.push_back(std::move(place));
  }
  return VYN_OK;
}

}  // namespace vyn::tessel
