#pragma once

// A clock that does not wait: it notes every sleep and moves its own time by it. A wait on a condition lasts
// until its notification, or until the test lets it end.

#include "common/util/clock.h"
#include "support/test.h"

namespace vyn::test {

class FakeClock : public common::Clock {
 public:
  using Duration = std::chrono::nanoseconds;

  FakeClock() { common::Clock::Replace(this); }
  ~FakeClock() override { common::Clock::Replace(nullptr); }

  std::chrono::steady_clock::time_point Now() override { return Copy(mNow); }
  void SleepFor(Duration duration) override {
    std::lock_guard lock(mMutex);
    mSleeps.push_back(duration);
    mNow += duration;
  }
  void WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
               Duration duration) override {
    std::unique_lock own(mMutex);
    mWaits.push_back(duration);
    mWaiters.insert(std::this_thread::get_id());
    mWaiting = &condition;
    if (mEnds == 0) {
      own.unlock();
      condition.wait(lock);
      own.lock();
    }
    if (mEnds != 0) {
      --mEnds;
      mNow += duration;
    }
    mWaiting = nullptr;
  }

  /// Lets a wait last its full time, the present one or the next. For one waiting thread at a time.
  void EndOneWait() {
    std::unique_lock lock(mMutex);
    ++mEnds;
    while (mEnds != 0 && mWaiting != nullptr) {  // a notification may come before the wait has begun
      mWaiting->notify_all();
      lock.unlock();
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
      lock.lock();
    }
  }
  /// Lets every wait from now on end at once, as if its time were over.
  void EndAllWaits() {
    std::lock_guard lock(mMutex);
    mEnds = std::numeric_limits<int>::max();
  }
  /// The number of threads that have waited on a condition.
  std::size_t Waiters() { return Copy(mWaiters).size(); }
  /// The waits on a condition so far, in order.
  std::vector<Duration> Waits() { return Copy(mWaits); }
  /// The sleeps so far, in order.
  std::vector<Duration> Sleeps() { return Copy(mSleeps); }

 private:
  template <typename Member>
  Member Copy(const Member& member) {
    std::lock_guard lock(mMutex);
    return member;
  }

  std::mutex mMutex;  ///< guards what follows
  std::chrono::steady_clock::time_point mNow = std::chrono::steady_clock::now();
  std::vector<Duration> mSleeps;
  std::vector<Duration> mWaits;
  std::set<std::thread::id> mWaiters;
  std::condition_variable* mWaiting = nullptr;
  int mEnds = 0;
};

}  // namespace vyn::test
