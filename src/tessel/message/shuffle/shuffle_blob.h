#pragma once

// A blob is one piece of shuffle data inside a bag. It is sent as a fixed record of 96 bytes, which is the
// root of its buffer, without a table around it. common/message/base_message.h says how a message is used and
// on which threads.

#include "common/message/base_message.h"
#include "platform/sync/mutex.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

struct TShuffleBlobId;

/// The id of a blob.
class ShuffleBlobId : public common::Message<TShuffleBlobId> {
 public:
  explicit ShuffleBlobId(unsigned int bag = 0, unsigned long inner = 0) : bagId(bag), innerId(inner) {}

  std::uint32_t bagId;
  std::uint64_t innerId;  ///< names the blob inside the bag
  VYN_MESSAGE_FIELDS(bagId, innerId)
};

class ShuffleBlob : public common::BaseMessage {
 public:
  /// The bytes before the record in a serialised blob.
  static constexpr std::uint32_t HEADER_SIZE = 8;
  static constexpr std::size_t kRecordSize = 96;
  /// The offset of the text in the record, and the bytes for the text with its NUL.
  static constexpr std::size_t kTextOffset = 27;
  static constexpr std::size_t kTextRoom = 64;

  ShuffleBlob();
  /// Outside SDK processes, the destructor of the last blob returns free heap memory to the system.
  ~ShuffleBlob() override;

  /// Builds the record from mId, bytes 12 to 26 of mRecord, blobText and zeros. Returns: VYN_OK;
  /// VYN_ERR_MESSAGE_DECODE without mId or with a text that does not fit with its NUL.
  std::uint32_t Serialize() override;
  /// Reads the record. blobText then has all 64 bytes, with the padding. Cut it before the next Serialize,
  /// which has no room for a NUL after 64 bytes. Returns: VYN_OK; VYN_ERR_MESSAGE_DECODE for a record outside
  /// the input.
  std::uint32_t Deserialize() override;

  common::Ref<ShuffleBlobId> mId;  ///< null until Deserialize or the owner sets it
  /// The record as it is sent, little-endian. Deserialize stores the first 27 bytes here. Serialize sends
  /// bytes 12 to 26 unchanged.
  alignas(8) std::array<std::uint8_t, kRecordSize> mRecord{};
  std::string blobText;
  // The members below are for the service's own use. This library only initialises them.
  std::uint32_t mOpaqueNumber = 0;
  std::string mAppId;
  std::array<std::uint64_t, 8> mOpaqueWords{};
  std::array<bool, 4> mOpaqueFlags{};
  std::int64_t mOpaqueSigned = -1;
  sync::SharedMutex mOpaqueLock;  ///< the service decides what it guards
  std::array<std::uint64_t, 4> mOpaqueMoreWords{};
  std::unordered_map<std::uint32_t, std::vector<std::uint64_t>> mOpaqueTable;

  /// Always null.
  static common::Ref<ShuffleBlob> NULL_SHUFFLE_BLOB;
  /// The number of blobs in this process.
  static std::atomic<std::int64_t> GLOBAL_COUNT;
  /// A process outside the SDK sets it to false before its first blob.
  static bool mIsSdk;
};

/// A list of blobs for a caller to fill.
class ShuffleBlobList : public common::Referable {
 public:
  std::vector<common::Ref<ShuffleBlob>> mBlobs;
};

}  // namespace vyn::tessel
