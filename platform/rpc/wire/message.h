#pragma once

// A message: an id and a list of buffers. A sender adds its parts as separate buffers, which are not copied;
// the receiver gets them joined in exactly one buffer, or in none if there was no byte.
//
// A message belongs to one thread at a time.

#include <cstdint>
#include <functional>
#include <utility>
#include <vector>

namespace vyn::rpc {

/// The operation that a message asks for or answers. The low 10 bits hold the operation code, all others are
/// 0.
class MessageId {
 public:
  static constexpr std::uint32_t kMask = 0x3ff;

  constexpr MessageId() = default;
  /// Keeps the low 10 bits of `opcode`.
  constexpr explicit MessageId(std::uint32_t opcode) : mValue(opcode & kMask) {}

  constexpr std::uint32_t Value() const { return mValue; }
  friend constexpr bool operator==(MessageId, MessageId) = default;

 private:
  std::uint32_t mValue = 0;
};

/// A piece of memory. With a deleter the buffer owns the memory and calls the deleter with its address;
/// without one it is a view, and the memory must outlive the call or the reply that it is passed to.
class Buffer {
 public:
  Buffer(void* address, unsigned long length, std::function<void(void*)> deleter)
      : mAddress(address), mLength(length), mDeleter(std::move(deleter)) {}
  Buffer(Buffer&& other) noexcept
      : mAddress(std::exchange(other.mAddress, nullptr)),
        mLength(std::exchange(other.mLength, 0)),
        mDeleter(std::exchange(other.mDeleter, nullptr)) {}
  Buffer& operator=(Buffer&& other) noexcept {
    if (this != &other) {
      Free();
      mAddress = std::exchange(other.mAddress, nullptr);
      mLength = std::exchange(other.mLength, 0);
      mDeleter = std::exchange(other.mDeleter, nullptr);
    }
    return *this;
  }
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  ~Buffer() { Free(); }

  void* Addr() const { return mAddress; }
  /// In bytes.
  unsigned long Len() const { return mLength; }
  /// Whether the buffer frees the memory.
  bool Owns() const { return static_cast<bool>(mDeleter); }

 private:
  void Free() {
    if (mDeleter && mAddress != nullptr) {
      mDeleter(mAddress);
    }
  }

  void* mAddress;
  unsigned long mLength;
  std::function<void(void*)> mDeleter;
};

class Message {
 public:
  explicit Message(MessageId id) : mId(id) {}
  Message(Message&&) noexcept = default;
  Message& operator=(Message&&) noexcept = default;
  ~Message() = default;

  MessageId Id() const { return mId; }
  /// The buffers, to append to or to read.
  std::vector<Buffer>& Bl() { return mBuffers; }
  const std::vector<Buffer>& Bl() const { return mBuffers; }

 private:
  MessageId mId;
  std::vector<Buffer> mBuffers;
};

}  // namespace vyn::rpc
