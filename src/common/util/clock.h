#pragma once

// The monotonic clock, sleeps and waits, behind a class that a test can replace, so that a test of a
// 30-second retry takes milliseconds. Below src/ and services/ only the main thread of vynd waits without it.
// platform/, which stands below this folder, waits in real time.
//
// Threads: any.

#include "platform/sync/mutex.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vyn::common {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::steady_clock::time_point Now();
  virtual void SleepFor(std::chrono::nanoseconds duration);
  /// Waits on `condition` until it is notified, at most `duration`. May return earlier without cause.
  /// Requires: `lock` is held; the wait releases it meanwhile.
  virtual void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                       std::chrono::nanoseconds duration);

  /// Returns: the clock in use.
  static Clock& Get();
  /// Replaces the clock in use; null restores the real one. For tests. The caller owns `clock`, which must
  /// outlive its use.
  static void Replace(Clock* clock);
};

/// Clock::SleepFor of the clock in use.
inline void SleepFor(std::chrono::nanoseconds duration) { Clock::Get().SleepFor(duration); }
/// Clock::WaitFor of the clock in use.
inline void WaitFor(sync::Condition& condition, sync::MutexLock& lock, std::chrono::nanoseconds duration) {
  Clock::Get().WaitFor(condition.Standard(), lock.Standard(), duration);
}
/// Clock::Now of the clock in use.
inline std::chrono::steady_clock::time_point SteadyNow() { return Clock::Get().Now(); }
/// Waits with the clock in use until `done()` returns true, at most `limit`. Returns: done(). Not checked:
/// clang does not know that `lock` holds the mutex that `done` requires.
template <typename Done>
bool WaitFor(sync::Condition& condition, sync::MutexLock& lock, std::chrono::nanoseconds limit,
             Done done) VYN_NO_THREAD_SAFETY_ANALYSIS {
  const auto end = SteadyNow() + limit;
  while (!done()) {
    const auto now = SteadyNow();
    if (now >= end) {
      return false;
    }
    WaitFor(condition, lock, end - now);
  }
  return true;
}

}  // namespace vyn::common
