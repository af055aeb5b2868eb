#pragma once

// A clock that knows which threads wait on a condition.

#include "common/util/clock.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <set>
#include <thread>

namespace vyn::test {

class WaiterClock : public common::Clock {
 public:
  /// \param early whether a wait ends at once, as if its time were over.
  explicit WaiterClock(bool early = false) : mEarly(early) { common::Clock::Replace(this); }
  ~WaiterClock() override { common::Clock::Replace(nullptr); }

  std::chrono::steady_clock::time_point Now() override {
    std::lock_guard lock(mMutex);
    return common::Clock::Now() + mPassed;
  }
  void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               std::chrono::nanoseconds duration) override {
    {
      std::lock_guard own(mMutex);
      mWaiters.insert(std::this_thread::get_id());
      mPassed += mEarly ? duration : std::chrono::nanoseconds(0);
    }
    if (!mEarly) {
      common::Clock::WaitFor(condition, lock, duration);
    }
  }
  /// The number of threads that have waited.
  std::size_t Waiters() {
    std::lock_guard lock(mMutex);
    return mWaiters.size();
  }

 private:
  const bool mEarly;
  std::mutex mMutex;  ///< guards what follows
  std::set<std::thread::id> mWaiters;
  std::chrono::nanoseconds mPassed{0};
};

}  // namespace vyn::test
