#pragma once

// A blob, one piece of shuffle data inside a bag, and its identity. A blob travels as a fixed record of 96
// bytes, the root of its buffer, without a table around it. common/util/base_message.h tells how a message is
// used and by whom.

#include "common/message/base_message.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

struct TShuffleBlobId;

/// The identity of a blob.
class ShuffleBlobId : public common::Message<TShuffleBlobId> {
 public:
  explicit ShuffleBlobId(unsigned int bag = 0, unsigned long inner = 0) : bagId(bag), innerId(inner) {}

  std::uint32_t bagId;
  std::uint64_t innerId;  ///< the blob inside the bag
  VYN_MESSAGE_FIELDS(bagId, innerId)
};

class ShuffleBlob : public common::BaseMessage {
 public:
  /// The bytes that stand before the record in a serialised blob.
  static constexpr std::uint32_t HEADER_SIZE = 8;
  static constexpr std::size_t kRecordSize = 96;
  /// Where the text stands in the record, and its room there, with its NUL.
  static constexpr std::size_t kTextOffset = 27;
  static constexpr std::size_t kTextRoom = 64;

  ShuffleBlob();
  /// The last blob of a process that is no SDK process gives free heap back to the system.
  ~ShuffleBlob() override;

  /// Writes the record: the identity, what lies between identity and text, the text, zeros. Returns:
  /// VYN_ERR_MESSAGE_DECODE without mId or with a text that does not fit with its NUL.
  std::uint32_t Serialize() override;
  /// Reads the record. The text then has all the 64 bytes of its room, the padding included, so that a blob
  /// off the wire cannot be serialised before its text is cut. Returns: VYN_ERR_MESSAGE_DECODE for a record
  /// outside the input.
  std::uint32_t Deserialize() override;

  common::Ref<ShuffleBlobId> mId;  ///< null until Deserialize or the owner sets it
  /// The record as it travels, little-endian. Deserialize keeps its first 27 bytes; bytes 12 to 26 are passed
  /// on as they are.
  alignas(8) std::array<std::uint8_t, kRecordSize> mRecord{};
  std::string blobText;
  // From here on the service's own: nothing in this library writes them, beyond these first values.
  std::uint32_t mOpaqueNumber = 0;
  std::string mAppId;
  std::array<std::uint64_t, 8> mOpaqueWords{};
  std::array<bool, 4> mOpaqueFlags{};
  std::int64_t mOpaqueSigned = -1;
  std::shared_mutex mOpaqueLock;  ///< what it guards is the service's to say
  std::array<std::uint64_t, 4> mOpaqueMoreWords{};
  std::unordered_map<std::uint32_t, std::vector<std::uint64_t>> mOpaqueTable;

  /// Holds null for the life of the process.
  static common::Ref<ShuffleBlob> NULL_SHUFFLE_BLOB;
  /// The living blobs of this process.
  static std::atomic<std::int64_t> GLOBAL_COUNT;
  /// A process that is no SDK process sets it to false before its first blob.
  static bool mIsSdk;
};

/// Blobs that a caller collects.
class ShuffleBlobList : public common::Referable {
 public:
  std::vector<common::Ref<ShuffleBlob>> mBlobs;
};

}  // namespace vyn::tessel
