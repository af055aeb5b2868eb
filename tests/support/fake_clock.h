#pragma once

// A clock that does not wait: it notes every sleep and moves its own time by it. A wait on a condition lasts
// until its notification, or until the test lets it end.

#include "common/util/clock.h"

#include <chrono>
#include <condition_variable>
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

  void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds duration) override {
    {
      std::lock_guard own(mMutex);
      mWaits.push_back(duration);
    }
    while (!TakeEnd(duration) &&
           condition.wait_for(lock, std::chrono::milliseconds(1)) == std::cv_status::timeout) {
    }
  }

  /// Lets one wait last its full time, the present one or the next.
  void EndOneWait() {
    std::lock_guard lock(mMutex);
    ++mEnds;
  }
  /// The waits on a condition so far, in order.
  std::vector<std::chrono::nanoseconds> Waits() {
    std::lock_guard lock(mMutex);
    return mWaits;
  }
  /// The sleeps so far, in order.
  std::vector<std::chrono::nanoseconds> Sleeps() {
    std::lock_guard lock(mMutex);
    return mSleeps;
  }

 private:
  bool TakeEnd(std::chrono::nanoseconds duration) {
    std::lock_guard lock(mMutex);
    if (mEnds == 0) {
      return false;
    }
    --mEnds;
    mNow += duration;
    return true;
  }

  std::mutex mMutex;
  std::chrono::steady_clock::time_point mNow = std::chrono::steady_clock::now();
  std::vector<std::chrono::nanoseconds> mSleeps;
  std::vector<std::chrono::nanoseconds> mWaits;
  int mEnds = 0;
};

}  // namespace vyn::test
