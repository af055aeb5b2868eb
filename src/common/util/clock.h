#pragma once

// The one seam through which the system reads the monotonic clock and sleeps, so that tests can put a clock
// of their own in its place and see a 30-second retry in milliseconds.

#include <chrono>

namespace vyn::common {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual std::chrono::steady_clock::time_point Now();
  virtual void SleepFor(std::chrono::nanoseconds duration);

  /// The clock in use. Any thread may call it.
  static Clock& Get();
  /// Puts `clock` in place of the one in use; null brings the real one back. For tests; `clock` stays the
  /// caller's.
  static void Replace(Clock* clock);
};

/// Sleeps through the seam.
inline void SleepFor(std::chrono::nanoseconds duration) { Clock::Get().SleepFor(duration); }
/// The monotonic time through the seam.
inline std::chrono::steady_clock::time_point SteadyNow() { return Clock::Get().Now(); }

}  // namespace vyn::common
