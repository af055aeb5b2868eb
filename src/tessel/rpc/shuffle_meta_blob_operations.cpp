// Operations on the bags and blobs of a shuffle.

#include "common/log/time_counter.h"
#include "common/rpc/client_forms.h"
#include "common/util/clock.h"
#include "common/util/text.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <new>

namespace vyn::tessel {

using common::BaseMessage;
using common::IsIdentifier;
using common::RpcEngine;

namespace {

/// The key of a blob in a batch: bag id and inner id, big-endian. The other bytes are not used.
using BlobKey = std::array<char, 96>;

void WriteBlobKey(const ShuffleBlobId& id, BlobKey& key) {
  for (int i = 0; i < 4; ++i) {
    key[i] = static_cast<char>(id.bagId >> (8 * (3 - i)));
  }
  for (int i = 0; i < 8; ++i) {
    key[4 + i] = static_cast<char>(id.innerId >> (8 * (7 - i)));
  }
}

/// Returns: the application id in a bag's name: the text before the fourth "_" without its first 6
/// characters.
std::string ApplicationOfBag(const std::string& bagName) {
  constexpr std::size_t kPrefixLength = 6;
  const std::string prefix = common::GetStrPrefix(bagName + "_0", '_', 4);
  return prefix.size() > kPrefixLength ? prefix.substr(kPrefixLength) : std::string();
}

std::chrono::steady_clock::time_point NowIf(bool measured) {
  return measured ? common::SteadyNow() : std::chrono::steady_clock::time_point();
}

}  // namespace

std::uint32_t ShuffleMetaRPCEngine::BagBatchNew(const Ref<ShuffleBagBatch>& batch) {
  VYN_CHECK_POINTER(batch);
  VYN_FAIL_IF(!IsIdentifier(batch->partName), VYN_ERR_INVALID_PARAM,
              "shuffle blob name does not compliance with specifications in bag batch new");
  const std::uint32_t status = SendAndWaitReply(BAG_BATCH_NEW, batch, BaseMessage::gNullPtr);
  if (status == VYN_ERR_META_BAG_REPLY) {
    return status;
  }
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, "Rpc failed to send create bag batch as " << status);
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::BagBatchRemove(const Ref<ShuffleBagBatch>& batch) {
  VYN_CHECK_POINTER(batch);
  VYN_FAIL_IF(!IsIdentifier(batch->partName), VYN_ERR_INVALID_PARAM,
              "shuffle blob name does not compliance with specifications in bag batch remove");
  VYN_FAIL_IF(batch->partitionNum == 0, VYN_ERR_INVALID_PARAM, "partition num is 0 in bag batch remove");
  return Call(BAG_BATCH_REMOVE, batch, BaseMessage::gNullPtr, "Rpc failed to send remove batch bag as ");
}

std::uint32_t ShuffleMetaRPCEngine::BagListGetBatch(const std::string& bagName, unsigned int number,
                                                    unsigned char kind, Ref<ShuffleBagIdEntry>& entry,
                                                    std::vector<std::string>& prefixesToClean) {
  const Ref<ShuffleBagInfoGetRequest> request(new (std::nothrow) ShuffleBagInfoGetRequest);
  VYN_CHECK_POINTER(request);
  request->ns = ApplicationOfBag(bagName);
  request->name = bagName;
  request->number = number;
  request->kind = kind;
  const Ref<ShuffleBagIdList> response(new (std::nothrow) ShuffleBagIdList);
  VYN_CHECK_POINTER(response);
  const std::uint32_t status = SendAndWaitReply(BAG_BATCH_LIST_GET, request, response);
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC,
              "Failed to send get bag id list for <" << bagName << "as, result <" << status << ">");
  const Ref<ShuffleBagIdEntry> bagIdEntry(new (std::nothrow) ShuffleBagIdEntry);
  VYN_ASSERT(bagIdEntry.Get() != nullptr, VYN_ERR_META_RPC);
  bagIdEntry->entryValue0 = response->listValue0;
  bagIdEntry->entryValue1 = response->listValue1;
  bagIdEntry->bagPrefix = response->bagNamePrefix;
  response->bagNamePrefixToBeCleanedList.swap(prefixesToClean);
  entry = bagIdEntry;
  return VYN_OK;
}

// The most frequent read of a shuffle and the only operation that measures itself. blob_get_mark is the time
// of all attempts with their sleeps; the three times of RpcEngine are of this thread's last attempt.
std::uint32_t ShuffleMetaRPCEngine::BlobListUnderBagWithMapTaskInfo(const std::string& bagName,
                                                                    const Ref<ShuffleBlobList>& blobs,
                                                                    bool flag, bool& result,
                                                                    std::set<unsigned short>& nodes,
                                                                    unsigned int number) {
  VYN_CHECK_POINTER(blobs);
  const Ref<BlobListBagRequest> request(new (std::nothrow) BlobListBagRequest);
  VYN_CHECK_POINTER(request);
  request->bagName = bagName;
  request->listFlag = flag;
  request->number = number;
  const Ref<ShuffleBlobListAndTaskInfo> response(new (std::nothrow) ShuffleBlobListAndTaskInfo);
  VYN_CHECK_POINTER(response);

  const bool measured = common::TimeCounter::timeCounterLevel != 0;
  const auto begin = NowIf(measured);
  std::uint32_t status = SendAndWaitReply(BLOB_LIST_MARK_READING, request, response);
  const auto replied = NowIf(measured);
  if (!Failed(status)) {
    status = response->DeserializeToShuffleBlobList(blobs->mBlobs);
    if (status == VYN_ERR_NULL_POINTER) {
      return status;
    }
  }
  VYN_FAIL_IF(Failed(status), VYN_ERR_META_RPC, "Rpc failed to get blob list in bag as " << status);
  result = response->listResult;
  response->removedNodeId.swap(nodes);
  if (measured) {
    const auto done = common::SteadyNow();
    VYN_LOG_INFO("TimeCount BLOB_LIST_MARK for bag "
                 << bagName << ": blob_get_mark " << std::chrono::nanoseconds(replied - begin).count()
                 << " rpc_ser " << RpcEngine::mTimeSer << " rpc_call " << RpcEngine::mTimeCall << " rpc_des "
                 << RpcEngine::mTimeDes << " post_des " << std::chrono::nanoseconds(done - replied).count()
                 << response->timeCount);
  }
  return VYN_OK;
}

std::uint32_t ShuffleMetaRPCEngine::BlobBatchRemove(const std::string& ns,
                                                    const std::vector<Ref<ShuffleBlobId>>& blobIdList) {
  const bool valid = std::all_of(blobIdList.begin(), blobIdList.end(), [](const Ref<ShuffleBlobId>& id) {
    return id != nullptr && id->bagId != 0 && id->innerId != 0;
  });
  VYN_FAIL_IF(!valid, VYN_ERR_INVALID_PARAM, "bagId or inner id == 0 in blob batch remove");
  const Ref<ShuffleBlobIdList> request(new (std::nothrow) ShuffleBlobIdList);
  VYN_CHECK_POINTER(request);
  request->ns = ns;
  request->blobIdList = blobIdList;
  return Call(BLOB_BATCH_REMOVE, request, BaseMessage::gNullPtr, "Rpc failed to send remove batch blob as ");
}

std::uint32_t ShuffleMetaRPCEngine::BlobBatchUpdate(const std::string& name, unsigned int number,
                                                    std::vector<Ref<ShuffleBlob>>& blobs,
                                                    Ref<ShuffleBlobStateIndexList>& states) {
  const Ref<ShuffleBlobListAndTaskInfo> request(new (std::nothrow) ShuffleBlobListAndTaskInfo);
  VYN_CHECK_POINTER(request);
  request->ns = name;
  request->number = number;
  request->keyList.reserve(blobs.size());
  request->valueList.reserve(blobs.size());
  BlobKey key{};
  for (const auto& blob : blobs) {
    // The bytes must be copied at once: the next Serialize in this thread overwrites them.
    VYN_FAIL_IF(blob == nullptr || Failed(blob->Serialize()), VYN_ERR_INVALID_PARAM,
                "blob without id or with too long a text in blob batch update");
    WriteBlobKey(*blob->mId, key);
    request->keyList.emplace_back(key.data(), key.size());
    request->valueList.emplace_back(reinterpret_cast<const char*>(blob->SerializedData()),
                                    blob->SerializedDataSize());
  }
  states = new (std::nothrow) ShuffleBlobStateIndexList;
  VYN_FAIL_IF(states == nullptr, VYN_ERR_GENERIC,
              "Failed to new ShuffleBlobStateIndexList, probably out of memory");
  return Call(BLOB_BATCH_UPDATE, request, states, "Rpc failed to send batch update blob as ");
}

std::uint32_t ShuffleMetaRPCEngine::CASBlobListState(Ref<BlobListCasRequest> request,
                                                     Ref<ShuffleBlobStateIndexCASResultList> response) {
  VYN_CHECK_POINTER(request);
  return Call(BLOB_LIST_CAS, request, response, "Rpc failed to get blob list in bag as ");
}

std::uint32_t ShuffleMetaRPCEngine::BatchCASShuffleBlobStates(
    Ref<ShuffleBlobStateIndexCASList>& request, Ref<ShuffleBlobStateIndexCASResultList>& response) {
  VYN_CHECK_POINTER(request);
  return Call(BLOB_BATCH_MARK_AND_FETCH, request, response, "Rpc failed to send blob batch check free as ");
}

}  // namespace vyn::tessel
