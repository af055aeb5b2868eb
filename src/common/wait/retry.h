#pragma once

// How a call is tried again that failed for a reason which may pass:
//
//   Retry retry = Retry::Times(3, std::chrono::seconds(1));
//   do {
//     if (Call()) {
//       return true;
//     }
//   } while (retry.Again());
//   return false;
//
// The pauses go through the seam of common/util/clock.h, in the calling thread and under whatever lock it holds.
//
// Threads: an object belongs to one thread.

#include <chrono>
#include <optional>
#include <span>

namespace vyn::common {

class Retry {
 public:
  using Duration = std::chrono::nanoseconds;

  /// A retry after each of `pauses`, which outlive the object.
  static Retry After(std::span<const Duration> pauses);
  /// At most `attempts` calls in all, `pause` apart.
  static Retry Times(unsigned int attempts, Duration pause = Duration::zero());
  /// Retries `pause` apart, as long as they begin within `limit` from now.
  static Retry For(Duration limit, Duration pause);

  /// Sleeps the pause before the next attempt. Returns: false, without a sleep, when there is no further attempt.
  bool Again();
  /// Returns: how often Again has returned true.
  unsigned int Count() const { return mCount; }

 private:
  Retry(std::span<const Duration> pauses, unsigned int limit, Duration pause)
      : mPauses(pauses), mLimit(limit), mPause(pause) {}

  std::span<const Duration> mPauses;  ///< empty: mPause before every retry
  unsigned int mLimit;                ///< the most retries
  Duration mPause;
  std::optional<std::chrono::steady_clock::time_point> mEnd;
  unsigned int mCount = 0;
};

}  // namespace vyn::common
