#pragma once

// The owner of a file descriptor.

#include <unistd.h>

#include <utility>

namespace vyn::bm {

class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : mDescriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      Reset(std::exchange(other.mDescriptor, -1));
    }
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { Reset(); }

  int Get() const { return mDescriptor; }
  explicit operator bool() const { return mDescriptor >= 0; }
  /// Closes what it owns and owns `descriptor` from now on.
  void Reset(int descriptor = -1) {
    if (mDescriptor >= 0) {
      ::close(mDescriptor);
    }
    mDescriptor = descriptor;
  }

 private:
  int mDescriptor = -1;
};

}  // namespace vyn::bm
