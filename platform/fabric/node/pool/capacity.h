#pragma once

// The pool's quota of bytes: how many may be used, and how many are. Threads: any.

#include "platform/fabric/protocol/protocol.h"
#include "platform/sync/mutex.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <utility>

namespace vyn::fabric {

class Capacity {
 public:
  static constexpr std::uint64_t kPage = 4096;
  static constexpr std::uint64_t kMaxSize = kMaxObjectSize;

  /// How often bytes are reclaimed for one reservation: other reservations may use what was reclaimed.
  static constexpr int kTries = 8;

  explicit Capacity(std::uint64_t limit) : mLimit(limit) {}

  /// The bytes that an object of `size` bytes is charged: whole pages, and one page for an empty object,
  /// which limits the number of files. Requires: size at most kMaxSize.
  static std::uint64_t Charge(std::uint64_t size) {
    return (std::max<std::uint64_t>(size, 1) + kPage - 1) / kPage * kPage;
  }

  /// Called without a lock when a reservation does not fit: gives at least `bytes` back by calling Release.
  /// If it has less to give, it gives nothing and returns false.
  using ReclaimFunction = std::function<bool(std::uint64_t bytes)>;
  /// Requires: nothing was reserved yet.
  void SetReclaim(ReclaimFunction reclaim) { mReclaim = std::move(reclaim); }
  /// Calls that function. Also needed when the file system is full before the limit is reached. Returns:
  /// whether `bytes` were given back.
  bool Reclaim(std::uint64_t bytes) const { return mReclaim != nullptr && mReclaim(bytes); }

  /// Counts `bytes` as used. Returns: false when they exceed the limit.
  bool Reserve(std::uint64_t bytes) {
    for (int tries = kTries;; --tries) {
      const std::uint64_t missing = TryReserve(bytes);
      if (missing == 0) {
        return true;
      }
      if (tries == 0 || bytes > mLimit || !Reclaim(missing)) {
        return false;
      }
    }
  }
  void Release(std::uint64_t bytes) {
    sync::MutexLock lock(mMutex);
    mUsed -= bytes;
  }
  /// Counts what a start finds in the pool, even beyond the limit.
  void Adopt(std::uint64_t bytes) {
    sync::MutexLock lock(mMutex);
    mUsed += bytes;
  }

  std::uint64_t Limit() const { return mLimit; }
  std::uint64_t Used() const {
    sync::MutexLock lock(mMutex);
    return mUsed;
  }

 private:
  /// Returns: 0 when reserved, otherwise how many bytes are missing.
  std::uint64_t TryReserve(std::uint64_t bytes) {
    sync::MutexLock lock(mMutex);
    const std::uint64_t left = mLimit - std::min(mLimit, mUsed);
    if (bytes > left) {
      return bytes - left;
    }
    mUsed += bytes;
    return 0;
  }

  const std::uint64_t mLimit;
  ReclaimFunction mReclaim;  // set before the first reservation
  mutable sync::Mutex mMutex;
  std::uint64_t mUsed VYN_GUARDED_BY(mMutex) = 0;
};

/// A reservation of quota for a file that is being made; released at its end unless it was committed.
class Reservation {
 public:
  Reservation(Capacity& capacity, std::uint64_t bytes)
      : mCapacity(capacity), mBytes(bytes), mHeld(capacity.Reserve(bytes)) {}
  ~Reservation() {
    if (mHeld) {
      mCapacity.Release(mBytes);
    }
  }
  Reservation(const Reservation&) = delete;
  Reservation& operator=(const Reservation&) = delete;

  explicit operator bool() const { return mHeld; }
  /// The file exists now: its bytes stay counted.
  void Commit() { mHeld = false; }

 private:
  Capacity& mCapacity;
  const std::uint64_t mBytes;
  bool mHeld;
};

}  // namespace vyn::fabric
