#pragma once

// Owns a file descriptor and closes it. Threads: one at a time.

#include <unistd.h>

#include <utility>

namespace vyn::net {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : mDescriptor(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      Reset(other.Release());
    }
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return mDescriptor; }
  explicit operator bool() const { return mDescriptor >= 0; }
  /// Gives the descriptor up without closing it.
  int Release() { return std::exchange(mDescriptor, -1); }
  void Close() { Reset(-1); }
  /// Closes the descriptor that is owned and owns `descriptor` instead.
  void Reset(int descriptor) {
    if (mDescriptor >= 0) {
      ::close(mDescriptor);
    }
    mDescriptor = descriptor;
  }

 private:
  int mDescriptor = -1;
};

}  // namespace vyn::net
