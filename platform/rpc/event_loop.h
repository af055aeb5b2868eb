#pragma once

// One thread's wait for many descriptors.
//
// Descriptors are registered once and reported as long as they are ready, so that a request costs one wait,
// one read and one write. (Measured against Asio 1.22: its waits are re-armed for every event and look a
// second time, two system calls a request more.)
//
// Run, Watch, Change, Unwatch and SetTick belong to the loop's thread, or to a time before Run; the others to
// any.

#include "platform/rpc/descriptor.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <vector>

namespace vyn::rpc {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  class Watcher {
   public:
    virtual ~Watcher() = default;
    /// \param events of epoll(7). A watcher may be told once more behind its Unwatch, while the events of one
    /// wait are handed out; it must exist until a function posted behind the Unwatch runs.
    virtual void OnReady(std::uint32_t events) = 0;
  };

  /// Throws std::system_error without descriptors.
  EventLoop();

  /// Reports `descriptor` to `watcher` when one of `events` is there.
  /// Returns: false when the system refuses.
  bool Watch(int descriptor, std::uint32_t events, Watcher* watcher);
  void Change(int descriptor, std::uint32_t events, Watcher* watcher);
  void Unwatch(int descriptor);
  /// Calls `tick` about every `period` from Run.
  void SetTick(std::chrono::milliseconds period, std::function<void()> tick);
  /// Runs until Stop. What was posted before Stop still runs.
  void Run();

  /// Runs `function` on the loop's thread, soon.
  void Post(std::function<void()> function);
  void Stop();
  /// The time when the last wait ended.
  Clock::time_point Now() const { return mNow.load(std::memory_order_relaxed); }
  /// For the time behind Run: runs what was posted late.
  bool RunPosted();

 private:
  void Wake();

  Descriptor mEpoll;
  Descriptor mWake;
  std::chrono::milliseconds mPeriod{1000};
  std::function<void()> mTick;
  std::atomic<Clock::time_point> mNow{Clock::now()};

  /// Guards mPosted, mWoken and mStopped.
  std::mutex mMutex;
  std::vector<std::function<void()>> mPosted;
  bool mWoken = false;
  bool mStopped = false;
};

}  // namespace vyn::rpc
