#pragma once

// Counts the attempts of a call and sleeps between them:
//
//   Retry retry = Retry::Times(3, std::chrono::seconds(1));
//   do {
//     if (Call()) {
//       return true;
//     }
//   } while (retry.Again());
//   return false;
//
// Again sleeps in the calling thread, with the clock of common/util/clock.h, also while the thread holds a
// lock.
//
// Not thread-safe: an object belongs to one thread.

#include <chrono>
#include <optional>
#include <span>

namespace vyn::common {

class Retry {
 public:
  using Duration = std::chrono::nanoseconds;

  /// One retry after each of `pauses`, an array that must outlive the object.
  static Retry After(std::span<const Duration> pauses);
  /// At most `attempts` attempts, the first included, with `pause` between them.
  static Retry Times(unsigned int attempts, Duration pause = Duration::zero());
  /// Retries with `pause` before each, as long as they begin within `limit` from now.
  static Retry For(Duration limit, Duration pause);

  /// Sleeps before the next attempt and returns true. Returns: false, without a sleep, after the last
  /// attempt.
  bool Again();
  /// Returns: how often Again has returned true.
  unsigned int Count() const { return mCount; }

 private:
  Retry(std::span<const Duration> pauses, unsigned int limit, Duration pause)
      : mPauses(pauses), mLimit(limit), mPause(pause) {}

  std::span<const Duration> mPauses;  ///< if empty, mPause comes before every retry
  unsigned int mLimit;                ///< largest number of retries
  Duration mPause;
  std::optional<std::chrono::steady_clock::time_point> mEnd;
  unsigned int mCount = 0;
};

}  // namespace vyn::common
