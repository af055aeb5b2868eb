// The exported functions that create the blocks of a variable. On a node of the fabric the node server
// creates them; a driver outside the fabric allocates them on a chosen node through the big-memory functions.
// Both add an entry to the cache and send a record to the metadata service.

#include "common/log/exceptions.h"
#include "common/rpc/network.h"
#include "common/util/text.h"
#include "common/wait/retry.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/broadcast/block_lookup.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"
#include "tessel/sdk/start_up/sdk_frame.h"
#include "vyn/big_memory.h"
#include "vyn/broadcast.h"

#include <array>
#include <chrono>
#include <utility>

using vyn::Failed;
using vyn::common::GenBcVarName;
using vyn::common::LastErrorText;
using vyn::common::Ref;
using namespace vyn::tessel;

namespace {

/// The flags for allocating and freeing blocks.
constexpr unsigned int kBlockFlags = 0x10;
/// The buffer for an id: its 60 characters, padded with NULs.
constexpr std::size_t kBmIdRoom = 64;
/// Attempts to allocate a block while the pool is full, and the pause between them: 10 seconds in all.
constexpr unsigned int kAllocAttempts = 1000;
constexpr auto kAllocPause = std::chrono::milliseconds(10);

unsigned int AddBlockInfosToMeta(const Ref<BroadcastBlockInfo>& blockInfo) try {
  if (!RefreshMetaClient()) {
    return VYN_FAIL(VYN_ERR_BC_META_CLIENT, "Failed to get meta rpc cli as " << LastErrorText());
  }
  const unsigned int status = g_ShuffleMetaRPCEngine->BroadcastVarInfoAdd(blockInfo);
  if (Failed(status)) {
    return VYN_FAIL(status, "Failed to add block infos to meta.");
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

std::vector<unsigned long> CopySizes(const unsigned long* sizes, unsigned int blockNum) {
  return blockNum == 0 ? std::vector<unsigned long>() : std::vector<unsigned long>(sizes, sizes + blockNum);
}

/// Allocates one block. Tries again while the pool is full.
unsigned int AllocOneBlock(const std::string& ns, const std::string& token, unsigned short nodeId,
                           unsigned long size, std::array<char, kBmIdRoom>& bmId) {
  auto retry = vyn::common::Retry::Times(kAllocAttempts, kAllocPause);
  do {
    bmId.fill('\0');
    const unsigned int status = BmAlloc(ns.c_str(), size, kBlockFlags, nodeId, bmId.data(), token.c_str());
    if (!Failed(status)) {
      return VYN_OK;
    }
    if (status != VYN_ERR_OUT_OF_POOL_MEMORY) {
      VYN_LOG_ERROR("Error to create broadcast block as " << LastErrorText());
      return VYN_ERR_BLOCK_ALLOC;
    }
  } while (retry.Again());
  VYN_LOG_ERROR("Error to create broadcast block as out of memory");
  return VYN_ERR_BLOCK_ALLOC;
}

/// The blocks that CreateBroadcastBlockBatchRemote has allocated on the chosen node. The destructor frees
/// them unless they were kept. The namespace stays: it has the blocks of the application's earlier variables,
/// and those that another thread allocates at this moment.
class RemoteCreation {
 public:
  RemoteCreation(const std::string& ns, const std::string& token) : mNs(ns), mToken(token) {}
  ~RemoteCreation() { RollBack(); }
  RemoteCreation(const RemoteCreation&) = delete;
  RemoteCreation& operator=(const RemoteCreation&) = delete;

  /// Ignores the result: the caller gets the failure that caused this.
  void RollBack() {
    if (!mIds.empty()) {
      BmFreeForBlockRemotely(mNs, mToken, mIds);
      mIds.clear();
    }
  }

  std::vector<std::string> mIds;

 private:
  const std::string& mNs;
  const std::string& mToken;
};

}  // namespace

unsigned int CreateBroadcastBlockBatch(const char* appId, unsigned int broadcastId,
                                       const unsigned long* sizes, unsigned int blockNum) try {
  VYN_CHECK_TEXT(appId, false);
  if (blockNum != 0) {
    VYN_CHECK_ARGUMENT(sizes);
  }
  VYN_LOG_DEBUG("Start to batch create broadcast block, appId: " << appId << ", broadcastId: " << broadcastId
                                                                 << ", blockNums: " << blockNum);
  VYN_CHECK_POINTER(g_broadcastCache);
  if (!RefreshServerClient()) {
    VYN_LOG_ERROR("Batch create broadcast block error: serverRpcEnginePtr nullptr");
    return VYN_FAIL(VYN_ERR_BC_SERVER_CLIENT, "Error to get shuffle rpc cli.");
  }
  auto request = NewMessage<BroadcastBlockBatch>();
  VYN_CHECK_POINTER(request);
  request->appId = appId;
  request->broadcastId = broadcastId;
  request->sizes = CopySizes(sizes, blockNum);
  auto blockInfos = NewMessage<BroadcastBlockInfo>();
  VYN_CHECK_POINTER(blockInfos);
  unsigned int status = g_shuffleServerRPCEngine->BroadcastBlockBatchCreate(request, blockInfos, g_appToken);
  if (Failed(status)) {
    return VYN_FAIL(status, "Failed to batch create blocks for broadcast variable { appId: "
                                << appId << ", broadcastId: " << broadcastId << " }");
  }
  if (!IsAnswerAbout(*blockInfos, appId, broadcastId)) {
    return VYN_ERR_GENERIC;
  }
  const std::string name = GenBcVarName(appId, broadcastId);
  if (!g_broadcastCache->InsertVarInfo(name, blockInfos->bmIds, request->sizes)) {
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to insert block infos for " << name);
  }
  status = AddBlockInfosToMeta(blockInfos);
  VYN_LOG_DEBUG("Batch create broadcast block exit for " << name << " return: " << status);
  return status;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int CreateBroadcastBlockBatchRemote(const char* appId, const char* token, unsigned int broadcastId,
                                             const unsigned long* sizes, unsigned int blockNum,
                                             const char* selectedNode, const char* hostName,
                                             unsigned short nodeId, std::vector<std::string>& bmIds) try {
  VYN_CHECK_TEXT(appId, false);
  VYN_CHECK_TOKEN(token);
  if (blockNum != 0) {
    VYN_CHECK_ARGUMENT(sizes);
  }
  VYN_CHECK_ARGUMENT(selectedNode);
  VYN_CHECK_ARGUMENT(hostName);
  VYN_CHECK_POINTER(g_broadcastCache);
  const std::string name = GenBcVarName(appId, broadcastId);
  std::vector<unsigned long> blockSizes = CopySizes(sizes, blockNum);
  std::string ns = appId;
  const std::string secret = token;
  RemoteCreation made(ns, secret);
  std::string ip;
  short port = 0;
  unsigned int status = vyn::common::SplitIpAndPort(selectedNode, ip, port);
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to execute hr");
    return status;
  }
  status = BmCreateLink(nodeId, hostName, ip.c_str(), static_cast<unsigned short>(port), 0);
  if (Failed(status)) {
    static_cast<void>(VYN_FAIL(status, std::string(LastErrorText())));
    return VYN_ERR_BC_LINK;
  }
  status = BmCreateNamespace(nodeId, "", ns.c_str(), 0, token);
  if (Failed(status)) {
    static_cast<void>(VYN_FAIL(status, "Error to create namespace " << ns << " as " << LastErrorText()));
    return VYN_ERR_BC_NAMESPACE;
  }
  status = AllocBmForBlockRemotely(ns, secret, nodeId, blockSizes, made.mIds);
  if (Failed(status)) {
    made.RollBack();
    static_cast<void>(
        VYN_FAIL(status, "Error to allocate BM on " << ip << " remotely for broadcast variable " << name));
    return VYN_ERR_BC_REMOTE_ALLOC;
  }
  if (!g_broadcastCache->InsertVarInfo(name, made.mIds, blockSizes)) {
    made.RollBack();
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to insert block infos for " << name);
  }
  auto blockInfo = GenerateBlockInfo(ns, broadcastId, nodeId, made.mIds, blockSizes);
  if (blockInfo == nullptr) {
    made.RollBack();
    return VYN_FAIL(VYN_ERR_GENERIC, "Failed to generate block for " << name);
  }
  // From here on the blocks stay, and the caller gets their ids, whatever becomes of the record.
  bmIds = std::exchange(made.mIds, {});
  return AddBlockInfosToMeta(blockInfo);
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int AllocBmForBlockRemotely(const std::string& ns, const std::string& token, unsigned short nodeId,
                                     const std::vector<unsigned long>& sizes,
                                     std::vector<std::string>& bmIds) try {
  std::array<char, kBmIdRoom> bmId{};
  for (const unsigned long size : sizes) {
    const unsigned int status = AllocOneBlock(ns, token, nodeId, size, bmId);
    if (Failed(status)) {
      return status;
    }
    bmIds.emplace_back(bmId.data(), bmId.size());
  }
  return VYN_OK;
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

unsigned int BmFreeForBlockRemotely(const std::string& ns, const std::string& token,
                                    std::vector<std::string>& bmIds) try {
  std::vector<const char*> ids;
  ids.reserve(bmIds.size());
  for (const std::string& bmId : bmIds) {
    ids.push_back(bmId.c_str());
  }
  return BmBatchFree(ids.data(), static_cast<unsigned int>(ids.size()), kBlockFlags, ns.c_str(),
                     token.c_str());
} catch (...) {
  return vyn::common::StatusOfException(__func__);
}

Ref<BroadcastBlockInfo> GenerateBlockInfo(std::string& ns, unsigned int broadcastId, unsigned short nodeId,
                                          std::vector<std::string>& bmIds,
                                          std::vector<unsigned long>& sizes) try {
  auto blockInfo = NewMessage<BroadcastBlockInfo>();
  if (blockInfo != nullptr) {
    try {
      blockInfo->appId = ns;
      blockInfo->bmIds = bmIds;
    } catch (const std::bad_alloc&) {
      blockInfo = Ref<BroadcastBlockInfo>();
    }
  }
  if (blockInfo == nullptr) {
    VYN_LOG_ERROR("New BroadcastBlockInfoPtr failed, Block info is null");
    return blockInfo;
  }
  blockInfo->broadcastId = broadcastId;
  blockInfo->nodeId = nodeId;
  blockInfo->sizes.swap(sizes);
  return blockInfo;
} catch (...) {
  static_cast<void>(vyn::common::StatusOfException(__func__));
  return {};
}
