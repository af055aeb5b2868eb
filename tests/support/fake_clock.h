#pragma once

// A clock that does not wait: it notes every sleep and moves its own time by it.

#include "common/util/clock.h"

#include <chrono>
#include <mutex>
#include <vector>

namespace vyn::test {

class FakeClock : public common::Clock {
 public:
  FakeClock() { common::Clock::Replace(this); }
  ~FakeClock() override { common::Clock::Replace(nullptr); }

  std::chrono::steady_clock::time_point Now() override {
    std::lock_guard lock(mMutex);
    return mNow;
  }
  void SleepFor(std::chrono::nanoseconds duration) override {
    std::lock_guard lock(mMutex);
    mSleeps.push_back(duration);
    mNow += duration;
  }

  /// The sleeps so far, in order.
  std::vector<std::chrono::nanoseconds> Sleeps() {
    std::lock_guard lock(mMutex);
    return mSleeps;
  }

 private:
  std::mutex mMutex;
  std::chrono::steady_clock::time_point mNow = std::chrono::steady_clock::now();
  std::vector<std::chrono::nanoseconds> mSleeps;
};

}  // namespace vyn::test
