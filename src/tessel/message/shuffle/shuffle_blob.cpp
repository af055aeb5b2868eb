#include "tessel/message/shuffle/shuffle_blob.h"

#include "common/log/logging.h"
#include "common/message/message_codec.h"
#include "platform/secure_memory/secure_memory.h"
#include "schema/blob_generated.h"

#include <malloc.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace vyn::tessel {

namespace codec = common::codec;

VYN_MESSAGE_CODEC(ShuffleBlobId, fbBuilder128)

common::Ref<ShuffleBlob> ShuffleBlob::NULL_SHUFFLE_BLOB;
std::atomic<std::int64_t> ShuffleBlob::GLOBAL_COUNT{0};
bool ShuffleBlob::mIsSdk = true;

static_assert(sizeof(TShuffleBlobRecord) == ShuffleBlob::kRecordSize && alignof(TShuffleBlobRecord) == 8);

namespace {

// The offsets of the two parts of the id in the record.
constexpr std::size_t kInnerIdOffset = 0;
constexpr std::size_t kBagIdOffset = 8;

}  // namespace

ShuffleBlob::ShuffleBlob() { GLOBAL_COUNT.fetch_add(1); }

ShuffleBlob::~ShuffleBlob() {
  mOpaqueTable.clear();
  if (GLOBAL_COUNT.fetch_sub(1) == 1 && !mIsSdk) {
    malloc_trim(0);
  }
}

std::uint32_t ShuffleBlob::Serialize() {
  auto& builder = codec::StartBuffer(*this, fbBuilder256);
  if (mId == nullptr) {
    VYN_LOG_ERROR("try to serialize shuffle blob, but its id is nullptr");
    return VYN_ERR_MESSAGE_DECODE;
  }
  if (memcpy_s(mRecord.data() + kTextOffset, kTextRoom, blobText.c_str(), blobText.size() + 1) != SECURE_OK) {
    VYN_LOG_ERROR("memcpy_s in ShuffleBlob serialize failed.");
    return VYN_ERR_MESSAGE_DECODE;
  }
  std::fill(mRecord.begin() + kTextOffset + blobText.size(), mRecord.end(), 0);
  flatbuffers::WriteScalar(mRecord.data() + kInnerIdOffset, mId->innerId);
  flatbuffers::WriteScalar(mRecord.data() + kBagIdOffset, mId->bagId);
  const auto* record = reinterpret_cast<const TShuffleBlobRecord*>(mRecord.data());
  return codec::FinishBuffer(*this, builder, builder.CreateStruct(*record));
}

std::uint32_t ShuffleBlob::Deserialize() {
  if (mInputRawData == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(mInputRawData)");
  }
  const std::size_t size = mInputRawDataSize;
  const bool holdsRecord = size >= kRecordSize && size <= kMaxInputSize;
  std::size_t root = 0;
  if (size >= sizeof(flatbuffers::uoffset_t)) {
    root = flatbuffers::ReadScalar<flatbuffers::uoffset_t>(mInputRawData);
    if (root == 0) {
      const std::uint32_t status = codec::Refuse(VYN_MESSAGE_PLACE, "(des)");
      if (holdsRecord) {  // otherwise the wrong size is logged below, too
        return status;
      }
    }
  }
  // The record must lie after the offset that points to it and within the input.
  if (!holdsRecord || root < sizeof(flatbuffers::uoffset_t) || root > size - kRecordSize) {
    VYN_LOG_ERROR("Failed to verify buffer.");
    return VYN_ERR_MESSAGE_DECODE;
  }
  const char* des = mInputRawData + root;
  mId = new (std::nothrow) ShuffleBlobId(flatbuffers::ReadScalar<std::uint32_t>(des + kBagIdOffset),
                                         flatbuffers::ReadScalar<std::uint64_t>(des + kInnerIdOffset));
  if (mId == nullptr) {
    return codec::Refuse(VYN_MESSAGE_PLACE, "(mId)");
  }
  std::memcpy(mRecord.data(), des, kTextOffset);
  std::fill(mRecord.begin() + kTextOffset, mRecord.end(), 0);
  blobText.assign(des + kTextOffset, kTextRoom);
  return VYN_OK;
}

}  // namespace vyn::tessel
