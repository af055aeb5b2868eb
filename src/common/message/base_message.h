#pragma once

// The base of every request and reply. A message has received bytes that Deserialize reads, or a buffer that
// Serialize has built.
//
// To send: fill the members, call Serialize, send SerializedDataSize bytes at SerializedData. To receive:
// call SetInputRawData, then Deserialize, and read the members.
//
// One thread at a time uses a message. Serialize builds the bytes in a builder of the calling thread. That
// thread must use them itself, before it serialises another message with the same builder.

#include "common/util/ref.h"

#include <cstdint>
#include <tuple>

namespace flatbuffers {
class FlatBufferBuilder;
}  // namespace flatbuffers

namespace vyn::common {

class BaseMessage : public Referable {
 public:
  /// The most bytes that a message can have: the format's offsets are signed 32-bit numbers.
  static constexpr std::uint32_t kMaxInputSize = 2147483646;

  BaseMessage() = default;
  /// Frees the message's copy of the input, if there is one.
  ~BaseMessage() override;

  /// Builds the buffer from the members. Returns: VYN_OK, or the code with which a class refuses its members;
  /// SerializedData is null then.
  virtual std::uint32_t Serialize() = 0;
  /// Verifies the attached bytes and copies the fields into the members. Bytes that fail the verification
  /// change nothing. When a required field is absent, the members read before it keep their new values.
  /// Returns: VYN_OK, VYN_ERR_MESSAGE_DECODE or VYN_ERR_NULL_POINTER.
  virtual std::uint32_t Deserialize() = 0;

  /// Attaches received bytes. With `copy` false the caller keeps `rawData` alive until Deserialize has
  /// returned; with `copy` true the message makes a copy. Requires: no further call after one with `copy`
  /// true. \param size in bytes, 1 to kMaxInputSize. Returns: VYN_OK, VYN_ERR_MESSAGE_DECODE for a null
  /// pointer or a size out of range, VYN_ERR_NULL_POINTER without memory for the copy.
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

  /// Each thread has one builder of each size. A class uses the one whose initial buffer holds its usual
  /// message: 128, 256 or 512 bytes, or 2048 for messages with lists (fbBuilder4096).
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder128;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder256;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder512;
  static thread_local flatbuffers::FlatBufferBuilder fbBuilder4096;

  /// Null. Passed as the response of a call that expects no reply body. Never assigned.
  static Ref<BaseMessage> gNullPtr;
};

/// The base of a message class whose table in the schema is `T`.
template <typename T>
class Message : public BaseMessage {};

}  // namespace vyn::common

/// Declares Serialize and Deserialize of a message class. Put it at the end of the class. It lists the
/// members that are sent, in the order in which Deserialize reads them. Each has the name of its field in the
/// schema. The source file defines the two with VYN_MESSAGE_CODEC of message_codec.h, or by hand for a class
/// that is more than a list of fields.
#define VYN_MESSAGE_FIELDS(...)                   \
 public:                                          \
  std::uint32_t Serialize() override;             \
  std::uint32_t Deserialize() override;           \
  auto Fields() { return std::tie(__VA_ARGS__); } \
  static constexpr const char* kFieldNames = #__VA_ARGS__;
