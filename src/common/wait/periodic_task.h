#pragma once

// Calls a function periodically on a thread of its own. The waits use the clock of common/util/clock.h, unless
// Options::realTime is set.
//
// Any thread may call any operation; only one thread at a time may call Start or Stop. No lock is held during
// a round (one call of the function), so the function may call Wake, SetPeriod, RequestStop and Stopping.

#include "platform/sync/mutex.h"

#include <chrono>
#include <functional>
#include <thread>

namespace vyn::common {

class PeriodicTask {
 public:
  struct Options {
    const char* failure;              ///< logged, with the exception's text, when a round throws
    std::chrono::nanoseconds period;  ///< from the end of a round to the start of the next
    bool atOnce = false;              ///< whether the first round starts without a wait
    bool realTime = false;  ///< whether the waits use the real clock, even when a test has replaced it
  };

  PeriodicTask() = default;
  /// Calls Stop.
  ~PeriodicTask();
  PeriodicTask(const PeriodicTask&) = delete;
  PeriodicTask& operator=(const PeriodicTask&) = delete;

  /// Starts the thread, after it has stopped a running one. When a round throws, the exception is logged, and
  /// the next round follows after the period.
  void Start(const Options& options, std::function<void()> round);
  /// Ends the wait: the next round starts at once, or after the present one.
  void Wake();
  /// Sets the period of the waits that begin after this call.
  void SetPeriod(std::chrono::nanoseconds period);
  /// Prevents further rounds. Does not wait.
  void RequestStop();
  /// Returns: whether RequestStop or Stop was called since the last Start.
  bool Stopping() const;
  /// Calls RequestStop and waits for the end of the present round. Returns: whether the task was running.
  bool Stop();

 private:
  void Run(const Options& options, const std::function<void()>& round);

  mutable sync::Mutex mMutex;
  std::chrono::nanoseconds mPeriod VYN_GUARDED_BY(mMutex){};
  bool mWoken VYN_GUARDED_BY(mMutex) = false;
  bool mStopping VYN_GUARDED_BY(mMutex) = false;
  sync::Condition mWake;
  std::thread mThread;
};

}  // namespace vyn::common
