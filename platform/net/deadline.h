#pragma once

// The end of the time that an operation may take.

#include <algorithm>
#include <chrono>
#include <cstdint>

namespace vyn::rpc {

class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  /// \param milliseconds from now; negative is no limit.
  explicit Deadline(std::int64_t milliseconds)
      : mEnd(milliseconds < 0 || milliseconds > kLongest
                 ? Clock::time_point::max()
                 : Clock::now() + std::chrono::milliseconds(milliseconds)) {}

  bool HasLimit() const { return mEnd != Clock::time_point::max(); }
  bool IsOver(Clock::time_point now = Clock::now()) const { return now >= mEnd; }

  /// Whether more than `time` is left.
  bool Exceeds(std::chrono::milliseconds time, Clock::time_point now = Clock::now()) const {
    return !HasLimit() || mEnd - now > time;
  }

  /// What is left as poll() takes it: -1 without a limit, otherwise rounded up, so that a wait of this length
  /// ends behind the deadline and not before it.
  int PollTime() const {
    if (!HasLimit()) {
      return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(mEnd - Clock::now()).count();
    return static_cast<int>(std::clamp<std::int64_t>(left, 0, kLongestPoll));
  }

 private:
  static constexpr std::int64_t kLongest = std::int64_t{1} << 50;
  static constexpr std::int64_t kLongestPoll = 3600000;

  Clock::time_point mEnd;
};

}  // namespace vyn::rpc
