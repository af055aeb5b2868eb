#pragma once

// The point in time at which an operation gives up. Threads: a value; const after construction.

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace vyn::net {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// \param milliseconds from now; negative, or more than a century, means no limit.
  explicit Deadline(std::int64_t milliseconds)
      : mEnd(milliseconds < 0 || milliseconds > kLongest.count()
                 ? Clock::time_point::max()
                 : Clock::now() + std::chrono::milliseconds(milliseconds)) {}

  /// A deadline `time` from now, at most a century. There is always a limit: a negative `time` has passed
  /// already.
  static Deadline After(std::chrono::milliseconds time) {
    return Deadline(Clock::now() + std::clamp<std::chrono::milliseconds>(time, -kLongest, kLongest));
  }

  bool HasLimit() const { return mEnd != Clock::time_point::max(); }
  bool IsOver(Clock::time_point now = Clock::now()) const { return now >= mEnd; }

  /// Whether more than `time` is left.
  bool Exceeds(std::chrono::milliseconds time, Clock::time_point now = Clock::now()) const {
    return !HasLimit() || mEnd - now > time;
  }

  /// The time that is left as poll() takes it: -1 without a limit, otherwise rounded up, so that a wait of
  /// this length ends after the deadline and not before it.
  int PollTime() const {
    if (!HasLimit()) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(mEnd - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongestPoll));
  }

  /// The earlier deadline is the smaller one.
  friend bool operator<(const Deadline& left, const Deadline& right) { return left.mEnd < right.mEnd; }

 private:
  /// The clock counts nanoseconds in 64 bits and holds 292 years.
  static constexpr std::chrono::milliseconds kLongest = std::chrono::hours(24 * 365 * 100);
  static constexpr std::int64_t kLongestPoll = 3600000;

  explicit Deadline(Clock::time_point end) : mEnd(end) {}

  Clock::time_point mEnd;
};

}  // namespace vyn::net
