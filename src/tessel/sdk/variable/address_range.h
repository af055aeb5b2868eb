#pragma once

// A range of this process's addresses. Used by one thread at a time.

#include <sys/mman.h>

#include <cstddef>
#include <cstdint>
#include <utility>

namespace vyn::tessel {

class AddressRange {
 public:
  AddressRange() = default;
  ~AddressRange() {
    if (mBegin != nullptr) {
      ::munmap(mBegin, mSize);
    }
  }
  AddressRange(AddressRange&& other) noexcept
      : mBegin(std::exchange(other.mBegin, nullptr)), mSize(std::exchange(other.mSize, 0)) {}
  AddressRange& operator=(AddressRange&& other) noexcept {
    std::swap(mBegin, other.mBegin);
    std::swap(mSize, other.mSize);
    return *this;
  }

  /// Reserves `size` addresses. \param usable whether they are private writable memory; otherwise an access
  /// ends the process until something is mapped over them. Returns: false without addresses or memory.
  bool Reserve(std::uint64_t size, bool usable) {
    void* begin = ::mmap(nullptr, size, usable ? PROT_READ | PROT_WRITE : PROT_NONE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (begin == MAP_FAILED) {
      return false;
    }
    *this = AddressRange(begin, size);
    return true;
  }

  char* Begin() const { return static_cast<char*>(mBegin); }
  /// Requires, as Discard: `offset` is a multiple of a page.
  void MakeReadOnly(std::uint64_t offset, std::uint64_t length) {
    ::mprotect(Begin() + offset, length, PROT_READ);
  }
  /// Makes pages inaccessible and gives their memory back.
  void Discard(std::uint64_t offset, std::uint64_t length) {
    ::mprotect(Begin() + offset, length, PROT_NONE);
    ::madvise(Begin() + offset, length, MADV_DONTNEED);
  }

 private:
  AddressRange(void* begin, std::uint64_t size) : mBegin(begin), mSize(size) {}

  void* mBegin = nullptr;
  std::size_t mSize = 0;
};

}  // namespace vyn::tessel
