#include "tessel/message/shuffle/blob_messages.h"

#include "common/log/logging.h"
#include "common/message/message_codec.h"
#include "schema/blob_generated.h"

#include <algorithm>
#include <climits>
#include <new>

namespace vyn {

using common::Ref;
using tessel::ShuffleBlobId;
using BlobIds = std::vector<Ref<ShuffleBlobId>>;
using BlobIdTables = flatbuffers::Vector<flatbuffers::Offset<tessel::TShuffleBlobId>>;

/// A list of blob ids, as tables inside the same buffer. Null entries are left out.
template <>
struct common::codec::FieldCodec<const BlobIdTables*, BlobIds> {
  static flatbuffers::Offset<BlobIdTables> Write(Builder& builder, const BlobIds& member) {
    std::vector<flatbuffers::Offset<tessel::TShuffleBlobId>> entries;
    entries.reserve(member.size());
    for (const auto& id : member) {
      if (id != nullptr) {
        entries.push_back(tessel::CreateTShuffleBlobId(builder, id->bagId, id->innerId));
      }
    }
    return builder.CreateVector(entries);
  }
  static std::uint32_t Read(const BlobIdTables* field, BlobIds& member, Place place) {
    member.clear();
    member.reserve(field->size());
    for (const tessel::TShuffleBlobId* blobId : *field) {
      if (blobId == nullptr) {
        return Refuse(place, "(blobId)");
      }
      Ref<ShuffleBlobId> tmp(new (std::nothrow) ShuffleBlobId(blobId->bagId(), blobId->innerId()));
      if (tmp == nullptr) {
        return Refuse(place, "(tmp)");
      }
      member.push_back(std::move(tmp));
    }
    return VYN_OK;
  }
};

namespace tessel {

namespace codec = common::codec;

VYN_MESSAGE_CODEC(BlobCreateRequest, fbBuilder128)
VYN_MESSAGE_CODEC(BlobListBagRequest, fbBuilder256)
VYN_MESSAGE_CODEC(BlobListCasRequest, fbBuilder256)
VYN_MESSAGE_CODEC(ShuffleBlobStateIndexCASList, fbBuilder4096)
VYN_MESSAGE_CODEC(ShuffleBlobStateIndexCASResultList, fbBuilder4096)
VYN_MESSAGE_CODEC(ShuffleBlobStateIndexList, fbBuilder256)
VYN_MESSAGE_CODEC(ShuffleBlobListAndTaskInfo, fbBuilder4096)

// The functions below are written by hand, because their classes are more than a list of fields.

namespace {

void LogNullIds(const BlobIds& ids, const char* text) {
  for (const auto& id : ids) {
    if (id == nullptr) {
      VYN_LOG_ERROR(text);
    }
  }
}

}  // namespace

std::uint32_t ShuffleBlobIdList::Serialize() {
  if (blobIdList.empty()) {
    VYN_LOG_ERROR("ShuffleBlobIdList is empty");
  }
  LogNullIds(blobIdList, "nullPtr in shuffle blobId list");
  auto& builder = codec::StartBuffer(*this, fbBuilder512);
  const auto list = codec::FieldCodec<const BlobIdTables*, BlobIds>::Write(builder, blobIdList);
  const auto name = builder.CreateString(ns);  // after the list, unlike in the order of the fields
  return codec::FinishBuffer(*this, builder, CreateTShuffleBlobIdList(builder, name, list));
}

std::uint32_t ShuffleBlobIdList::Deserialize() { return codec::Decode(*this, VYN_MESSAGE_PLACE); }

std::uint32_t BlobBatchDeleteRequest::Serialize() {
  LogNullIds(blobIdList, "BlobBatchDeleteRequest contains null blob id");
  return codec::Encode(*this, fbBuilder256);
}

std::uint32_t BlobBatchDeleteRequest::Deserialize() { return codec::Decode(*this, VYN_MESSAGE_PLACE); }

std::uint32_t BlobRequest::Serialize() {
  if (mBlobId == nullptr) {
    VYN_LOG_ERROR("blob id is nullptr.");
    mSerializedData = nullptr;
    mSerializedDataSize = 0;
    return VYN_ERR_MESSAGE_DECODE;
  }
  auto& builder = codec::StartBuffer(*this, fbBuilder256);
  const auto id = CreateTShuffleBlobId(builder, mBlobId->bagId, mBlobId->innerId);
  const auto name = builder.CreateString(ns);
  return codec::FinishBuffer(*this, builder, CreateTBlobRequest(builder, id, name, blobNumber));
}

std::uint32_t BlobRequest::Deserialize() {
  codec::Input input(*this);
  const auto* root = input.Root<TBlobRequest>();
  if (root == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(instance)");
  }
  if (root->blobId() == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(blobId)");
  }
  mBlobId = new (std::nothrow) ShuffleBlobId(root->blobId()->bagId(), root->blobId()->innerId());
  if (mBlobId == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(mBlobId)");
  }
  if (root->ns() == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(ns)");
  }
  ns = root->ns()->str();
  blobNumber = root->blobNumber();
  return VYN_OK;
}

std::uint32_t ShuffleBlobListAndTaskInfo::DeserializeToShuffleBlobList(std::vector<Ref<ShuffleBlob>>& blobs) {
  std::vector<Ref<ShuffleBlob>> read;
  read.reserve(valueList.size());
  for (std::string& entry : valueList) {
    Ref<ShuffleBlob> blob(new (std::nothrow) ShuffleBlob);
    VYN_CHECK_POINTER(blob);
    // A size that does not fit must not wrap to a small one. SetInputRawData refuses UINT_MAX.
    const auto size = static_cast<unsigned int>(std::min<std::size_t>(entry.size(), UINT_MAX));
    VYN_CHECK_CALL(blob->SetInputRawData(entry.data(), size, false));
    VYN_CHECK_CALL(blob->Deserialize());
    blob->mInputRawData = nullptr;
    blob->mInputRawDataSize = 0;
    read.push_back(std::move(blob));
  }
  blobs.insert(blobs.end(), read.begin(), read.end());
  return VYN_OK;
}

}  // namespace tessel
}  // namespace vyn
