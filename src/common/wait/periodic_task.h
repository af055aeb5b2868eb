#pragma once

// Work that a thread of its own does again and again. The time between two rounds goes through the seam of
// common/util/clock.h.
//
// Threads: any, but for Start and Stop, which one thread at a time calls. No lock is held during a round, so the work may
// call Wake, SetPeriod and Stopping.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

namespace vyn::common {

class PeriodicTask {
 public:
  struct Options {
    const char* failure;              ///< logged, with the exception's text, when a round throws
    std::chrono::nanoseconds period;  ///< from the end of a round to the begin of the next
    bool atOnce = false;              ///< the first round does not wait for a period
  };

  PeriodicTask() = default;
  /// Stops.
  ~PeriodicTask();
  PeriodicTask(const PeriodicTask&) = delete;
  PeriodicTask& operator=(const PeriodicTask&) = delete;

  /// Starts the thread. A task that runs is stopped first. A round that throws is logged, and the next one comes after the
  /// period.
  void Start(const Options& options, std::function<void()> round);
  /// The next round begins now, or when the one under way has ended.
  void Wake();
  /// Counts from the next wait on.
  void SetPeriod(std::chrono::nanoseconds period);
  /// No further round begins. Waits for nothing.
  void RequestStop();
  /// Returns: whether RequestStop or Stop was called since the last Start.
  bool Stopping() const;
  /// RequestStop, then waits for the round under way. Returns: whether the task was running.
  bool Stop();

 private:
  void Run(const char* failure, const std::function<void()>& round);

  mutable std::mutex mMutex;
  // Guarded by mMutex.
  std::chrono::nanoseconds mPeriod{};
  bool mWoken = false;
  bool mStopping = false;
  std::condition_variable mWake;
  std::thread mThread;
};

}  // namespace vyn::common
