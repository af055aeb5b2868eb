#pragma once

// The account of the pool's bytes. Threads: any.

#include "platform/fabric/protocol/protocol.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>

namespace vyn::bm {

class Capacity {
 public:
  static constexpr std::uint64_t kPage = 4096;
  static constexpr std::uint64_t kMaxSize = kMaxObjectSize;

  /// How often room is made for one reservation: others may take what was given for it.
  static constexpr int kTries = 8;

  explicit Capacity(std::uint64_t limit) : mLimit(limit) {}

  /// What an object of `size` bytes takes; one without contents takes a page, too, so that nobody makes files
  /// without end. Requires: size at most kMaxSize.
  static std::uint64_t Charge(std::uint64_t size) {
    return (std::max<std::uint64_t>(size, 1) + kPage - 1) / kPage * kPage;
  }

  /// Called when a reservation does not fit, without this account's lock: gives at least `bytes` back by
  /// Release. What has less gives nothing and returns false.
  using Reclaimer = std::function<bool(std::uint64_t bytes)>;
  /// Requires: nothing was reserved yet.
  void SetReclaimer(Reclaimer reclaim) { mReclaim = std::move(reclaim); }
  /// For the file system, which may be full before the limit is reached. Returns: whether `bytes` were given.
  bool GiveWay(std::uint64_t bytes) const { return mReclaim != nullptr && mReclaim(bytes); }

  /// Takes `bytes` from what is left. Returns: false when they are not there.
  bool Reserve(std::uint64_t bytes) {
    for (int tries = kTries;; --tries) {
      const std::uint64_t missing = Try(bytes);
      if (missing == 0) {
        return true;
      }
      if (tries == 0 || bytes > mLimit || !GiveWay(missing)) {
        return false;
      }
    }
  }
  void Release(std::uint64_t bytes) {
    std::lock_guard lock(mMutex);
    mUsed -= bytes;
  }
  /// Counts what stands in the pool already, fit or not.
  void Adopt(std::uint64_t bytes) {
    std::lock_guard lock(mMutex);
    mUsed += bytes;
  }

  std::uint64_t Limit() const { return mLimit; }
  std::uint64_t Used() const {
    std::lock_guard lock(mMutex);
    return mUsed;
  }

 private:
  /// Returns: 0 when reserved, otherwise how many bytes are missing.
  std::uint64_t Try(std::uint64_t bytes) {
    std::lock_guard lock(mMutex);
    const std::uint64_t left = mLimit - std::min(mLimit, mUsed);
    if (bytes > left) {
      return bytes - left;
    }
    mUsed += bytes;
    return 0;
  }

  const std::uint64_t mLimit;
  Reclaimer mReclaim;         // set before the first reservation
  mutable std::mutex mMutex;  // guards mUsed
  std::uint64_t mUsed = 0;
};

/// Bytes reserved for something that is being made; given back unless kept.
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
  /// What was made stands: its bytes stay counted.
  void Keep() { mHeld = false; }

 private:
  Capacity& mCapacity;
  const std::uint64_t mBytes;
  bool mHeld;
};

}  // namespace vyn::bm
