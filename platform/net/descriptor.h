#pragma once

// Owns a file descriptor.

#include <unistd.h>

#include <utility>

namespace vyn::rpc {

class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int descriptor) : mDescriptor(descriptor) {}
  Descriptor(Descriptor&& other) noexcept : mDescriptor(other.Release()) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    if (this != &other) {
      Close();
      mDescriptor = other.Release();
    }
    return *this;
  }
  ~Descriptor() { Close(); }

  int Get() const { return mDescriptor; }
  explicit operator bool() const { return mDescriptor >= 0; }
  int Release() { return std::exchange(mDescriptor, -1); }
  void Close() {
    if (mDescriptor >= 0) {
      close(mDescriptor);
      mDescriptor = -1;
    }
  }

 private:
  int mDescriptor = -1;
};

}  // namespace vyn::rpc
