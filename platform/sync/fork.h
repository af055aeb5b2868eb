#pragma once

// What a forked child must know. It inherits copies of its parent's descriptors and objects, and none of its
// parent's threads but the one that forked. What it writes to an inherited socket mixes with what its parent
// writes; an inherited mutex may stay locked for ever.
//
// Threads: any.

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <new>

namespace vyn::sync {

inline std::atomic<std::uint32_t> gForkCount{0};

/// Returns: a number that differs between a process and its forked children. An object that owns a socket or
/// a thread keeps the number of the process that made them.
inline std::uint32_t ForkCount() {
  [[maybe_unused]] static const int registered =
      ::pthread_atfork(nullptr, nullptr, [] { gForkCount.fetch_add(1, std::memory_order_relaxed); });
  return gForkCount.load(std::memory_order_relaxed);
}

/// Returns: the one T of this process. It is never destroyed, and takes no memory from the heap. A forked
/// child gets a new one and does not use its parent's.
template <typename T>
T& OneInProcess() {
  alignas(T) static char storage[sizeof(T)];
  static T* const object = [] {
    ::pthread_atfork(nullptr, nullptr, [] { new (storage) T; });
    return new (storage) T;
  }();
  return *object;
}

}  // namespace vyn::sync
