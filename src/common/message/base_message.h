#pragma once

// What every request and reply of the wire has in common: received bytes on one side, a finished buffer on
// the other.
//
// Sending: fill the members, Serialize, take SerializedData and SerializedDataSize, hand the bytes to the
// transport. Receiving: SetInputRawData, Deserialize, read the members.
//
// A message belongs to one thread at a time. The finished bytes lie in a builder of the thread that
// serialised: that thread uses them itself, before it serialises another message of the same builder.

#include "common/util/ref.h"

#include <cstdint>
#include <tuple>

namespace flatbuffers {
class FlatBufferBuilder;
}  // namespace flatbuffers

namespace vyn::common {

class BaseMessage : public Referable {
 public:
  /// The most bytes that can be read: the format counts in signed 32 bits.
  static constexpr std::uint32_t kMaxInputSize = 2147483646;

  BaseMessage() = default;
  /// Frees the private copy of the input, if there is one.
  ~BaseMessage() override;

  /// Builds the buffer from the members and records it. Returns: VYN_OK, or the code of a message that
  /// refused; then SerializedData is null.
  virtual std::uint32_t Serialize() = 0;
  /// Verifies the attached bytes and replaces the members, which refer to nothing in them afterwards. Bytes
  /// that fail the verification change nothing; a required field that is absent leaves the members read
  /// before it with their new values. Returns: VYN_OK, VYN_ERR_MESSAGE_DECODE or VYN_ERR_NULL_POINTER.
  virtual std::uint32_t Deserialize() = 0;

  /// Attaches received bytes. With `copy` false the caller keeps `rawData` alive until Deserialize has
  /// returned; with `copy` true the message takes a copy of its own. Requires: a message is given a copy once
  /// at most, and no other bytes after it. \param size in bytes, 1 to kMaxInputSize. Returns: VYN_OK,
  /// VYN_ERR_MESSAGE_DECODE for a null pointer or a size out of range, VYN_ERR_NULL_POINTER without memory
  /// for the copy.
  std::uint32_t SetInputRawData(char* rawData, unsigned int size, bool copy);

  /// The finished buffer: root table, no identifier, no size prefix. Null until Serialize has succeeded.
  std::uint8_t* SerializedData() const { return mSerializedData; }
  /// Its size in bytes.
  std::uint32_t SerializedDataSize() const { return mSerializedDataSize; }

  char* mInputRawData = nullptr;
  std::uint32_t mInputRawDataSize = 0;
  bool mInputRawDataOwned = false;
  std::uint8_t* mSerializedData = nullptr;
  std::uint32_t mSerializedDataSize = 0;

  /// One builder of each size a thread, made together at the first use of any. A class uses the one that its
  /// usual message fits into at once: 128, 256, 512 and, for messages that carry lists, 2048 bytes.
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder128;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder256;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder512;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder4096;

  /// The reply of a call that expects no reply body. Nothing assigns to it.
  static Ref<BaseMessage> gNullPtr;
};

/// Ties a message class to its table `T` of the schema.
template <typename T>
class Message : public BaseMessage {};

}  // namespace vyn::common

/// The wire side of a message class. Stands at the end of the class and names, in the order in which a reader
/// takes them, the members that travel; each has the name of its field in the schema. The source file adds
/// one line out of message_codec.h, or the two operations written by hand where a class is no plain list of
/// fields.
#define VYN_MESSAGE_FIELDS(...)                   \
 public:                                          \
  std::uint32_t Serialize() override;             \
  std::uint32_t Deserialize() override;           \
  auto Fields() { return std::tie(__VA_ARGS__); } \
  static constexpr const char* kFieldNames = #__VA_ARGS__;
