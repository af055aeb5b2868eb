#pragma once

// The one seam through which the library and the services read the monotonic clock, sleep and wait, so that tests can put a
// clock of their own in its place and see a 30-second retry in milliseconds.

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace vyn::common {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::steady_clock::time_point Now();
  virtual void SleepFor(std::chrono::nanoseconds duration);
  /// Waits on `condition` until it is notified, at most `duration`; may end early without reason. Requires:
  /// `lock` is held; it is let go during the wait.
  virtual void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                       std::chrono::nanoseconds duration);

  /// The clock in use. Any thread may call it.
  static Clock& Get();
  /// Puts `clock` in place of the one in use; null brings the real one back. For tests; `clock` stays the
  /// caller's.
  static void Replace(Clock* clock);
};

/// Sleeps through the seam.
inline void SleepFor(std::chrono::nanoseconds duration) { Clock::Get().SleepFor(duration); }
/// Waits through the seam.
inline void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                    std::chrono::nanoseconds duration) {
  Clock::Get().WaitFor(condition, lock, duration);
}
/// The monotonic time through the seam.
inline std::chrono::steady_clock::time_point SteadyNow() { return Clock::Get().Now(); }

}  // namespace vyn::common
