#pragma once

// Messages about blobs: they name, create and delete blobs, and carry the state of blobs to and from the
// metadata service. Values that only a service interprets have the names of the schema.
// common/message/base_message.h says how a message is used and on which threads.

#include "common/message/base_message.h"
#include "tessel/message/shuffle/shuffle_blob.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vyn::tessel {

struct TShuffleBlobIdList;
struct TBlobCreateRequest;
struct TBlobRequest;
struct TBlobBatchDeleteRequest;
struct TBlobListBagRequest;
struct TBlobListCasRequest;
struct TShuffleBlobStateIndexCASList;
struct TShuffleBlobStateIndexCASResultList;
struct TShuffleBlobStateIndexList;
struct TShuffleBlobListWithMapTaskInfo;

/// Blobs of an application. A null entry is logged and not sent.
class ShuffleBlobIdList : public common::Message<TShuffleBlobIdList> {
 public:
  std::string ns;  ///< the application's id
  std::vector<common::Ref<ShuffleBlobId>> blobIdList;
  VYN_MESSAGE_FIELDS(ns, blobIdList)
};

/// Asks the node server for a new blob.
class BlobCreateRequest : public common::Message<TBlobCreateRequest> {
 public:
  std::string ns;  ///< the application's id
  std::string bagName;
  std::uint64_t blobSize = 0;  ///< in bytes
  std::uint16_t blobNumber = 0;
  std::string token;
  VYN_MESSAGE_FIELDS(bagName, ns, blobSize, blobNumber, token)
};

/// Names one blob. Serialize refuses a null mBlobId with VYN_ERR_MESSAGE_DECODE.
class BlobRequest : public common::Message<TBlobRequest> {
 public:
  std::string ns;  ///< the application's id
  common::Ref<ShuffleBlobId> mBlobId;
  std::uint16_t blobNumber = 0;
  VYN_MESSAGE_FIELDS(mBlobId, ns, blobNumber)
};

/// Asks the node server to delete blobs. A null entry is logged and not sent.
class BlobBatchDeleteRequest : public common::Message<TBlobBatchDeleteRequest> {
 public:
  std::vector<common::Ref<ShuffleBlobId>> blobIdList;
  std::string ns;  ///< the application's id
  std::uint16_t blobNumber = 0;
  std::string token;
  VYN_MESSAGE_FIELDS(blobIdList, ns, blobNumber, token)
};

/// Asks for the blobs of a bag.
class BlobListBagRequest : public common::Message<TBlobListBagRequest> {
 public:
  std::string bagName;
  bool listFlag = false;
  std::uint32_t number = 0;
  VYN_MESSAGE_FIELDS(bagName, listFlag, number)
};

/// Compares and swaps the state of blobs of a bag.
class BlobListCasRequest : public common::Message<TBlobListCasRequest> {
 public:
  std::string bagName;
  std::uint32_t casValue = 0;
  std::vector<std::uint32_t> blobIndexes;  ///< positions in the bag
  VYN_MESSAGE_FIELDS(bagName, casValue, blobIndexes)
};

/// Compares and swaps the state of blobs of an application.
class ShuffleBlobStateIndexCASList : public common::Message<TShuffleBlobStateIndexCASList> {
 public:
  std::string ns;  ///< the application's id
  std::uint8_t casState = 0;
  std::vector<std::uint32_t> blobIndex;  ///< positions of the blobs
  VYN_MESSAGE_FIELDS(ns, casState, blobIndex)
};

/// The reply to both requests above.
class ShuffleBlobStateIndexCASResultList : public common::Message<TShuffleBlobStateIndexCASResultList> {
 public:
  std::vector<std::uint8_t> blobStates;  ///< one for each blob
  VYN_MESSAGE_FIELDS(blobStates)
};

/// The reply to an update of blobs.
class ShuffleBlobStateIndexList : public common::Message<TShuffleBlobStateIndexList> {
 public:
  std::uint8_t stateFlag = 0;
  std::uint32_t stateValue0 = 0;
  std::uint32_t stateValue1 = 0;
  std::string timeCount;  ///< time measurements of the service
  VYN_MESSAGE_FIELDS(stateFlag, stateValue0, stateValue1, timeCount)
};

/// Blobs, sent to the metadata service or by it. Entry i of both lists belongs to one blob.
class ShuffleBlobListAndTaskInfo : public common::Message<TShuffleBlobListWithMapTaskInfo> {
 public:
  /// Appends a blob for each entry of valueList to `blobs`, in order. The blobs do not refer to the list. A
  /// bad entry leaves `blobs` unchanged. Returns: VYN_OK, the code of a bad entry, VYN_ERR_NULL_POINTER
  /// without memory.
  std::uint32_t DeserializeToShuffleBlobList(std::vector<common::Ref<ShuffleBlob>>& blobs);

  std::uint32_t number = 0;
  std::string ns;
  std::vector<std::string> keyList;    ///< 96 bytes each, raw
  std::vector<std::string> valueList;  ///< one serialised ShuffleBlob each, raw
  bool listResult = false;
  std::set<std::uint16_t> removedNodeId;
  std::string timeCount;  ///< time measurements of the service
  VYN_MESSAGE_FIELDS(number, ns, keyList, valueList, listResult, removedNodeId, timeCount)
};

}  // namespace vyn::tessel
