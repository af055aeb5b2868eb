// Operations on shuffle blobs at the node server.

#include "common/rpc/client_forms.h"
#include "tessel/message/operation_codes.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

#include <new>

namespace vyn::tessel {

using common::BaseMessage;

std::uint32_t ShuffleServerRPCEngine::BlobCreate(const std::string& ns, const std::string& bagName,
                                                 Ref<ShuffleBlob>& blob, unsigned long size,
                                                 unsigned short number, const std::string& token) {
  VYN_FAIL_IF(!common::IsIdentifier(bagName), VYN_ERR_GENERIC,
              "shuffle blob name does not compliance with specifications in blob create");
  VYN_FAIL_IF(size < 1 || size > maxBlobSize, VYN_ERR_GENERIC, "invalid shuffle blob size " << size);
  const Ref<BlobCreateRequest> request(new (std::nothrow) BlobCreateRequest);
  VYN_CHECK_POINTER(request);
  request->ns = ns;
  request->bagName = bagName;
  request->blobSize = size;
  request->blobNumber = number;
  request->token = token;
  const std::uint32_t status = SendCall(BLOB_CREATE, request, blob, 0);
  VYN_FAIL_IF(Failed(status), VYN_ERR_GENERIC, "Failed to create blob as " << status);
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::BlobBatchDelete(std::vector<Ref<ShuffleBlobId>>& blobs,
                                                      const std::string& ns, unsigned short number,
                                                      const std::string& token) {
  const Ref<BlobBatchDeleteRequest> request(new (std::nothrow) BlobBatchDeleteRequest);
  VYN_CHECK_POINTER(request);
  request->blobIdList.swap(blobs);
  request->ns = ns;
  request->blobNumber = number;
  request->token = token;
  const std::uint32_t status = SendCall(BLOB_BATCH_DELETE, request, BaseMessage::gNullPtr, 0);
  VYN_FAIL_IF(Failed(status), VYN_ERR_GENERIC, "Failed to delete blob in batch as " << status);
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::GetLocalBlob(const Ref<LocalBlobGetRequest>& request,
                                                   Ref<LocalBlob>& blob) {
  VYN_FAIL_IF(request == nullptr, VYN_ERR_GENERIC, "Unexpected nullptr value request");
  VYN_FAIL_IF(request->ns.empty() || request->bagName.empty(), VYN_ERR_GENERIC, "nameSpace is empty.");
  VYN_FAIL_IF(request->size == 0 || request->partitionNum == 0, VYN_ERR_GENERIC,
              "size == 0, or partitionNum == 0 in LocalBlob get");
  VYN_FAIL_IF(Failed(SendCall(LOCAL_BLOB_GET, request, blob, mLocalBlobGetTimeout)), VYN_ERR_GENERIC,
              "Get local blob failed");
  return VYN_OK;
}

std::uint32_t ShuffleServerRPCEngine::CommitLocalBlob(const Ref<LocalBlobCommitRequest>& request,
                                                      Ref<LocalBlobCommitResponse>& response) {
  VYN_FAIL_IF(request == nullptr, VYN_ERR_GENERIC, "Unexpected nullptr value request");
  VYN_FAIL_IF(request->ns.empty(), VYN_ERR_GENERIC, "nameSpace is empty.");
  VYN_FAIL_IF(request->blobId == 0, VYN_ERR_GENERIC, "blobId == 0 in LocalBlob commit");
  VYN_FAIL_IF(Failed(SendCall(LOCAL_BLOB_COMMIT, request, response, mLocalBlobCommitTimeout)),
              VYN_ERR_GENERIC, "Failed to commit local blob id: " << request->blobId);
  return VYN_OK;
}

}  // namespace vyn::tessel
