#pragma once

// The wait of several threads for many descriptors.
//
// A descriptor is registered once, for everything that can become of it, and reported at each change, so that
// a request costs one wait, one read and one write. (Measured against Asio 1.22: its waits are re-armed for
// every event and look a second time, two system calls a request more.) A thread that was given an event may
// take its time: the others go on waiting, and the system wakes the one that waits since last.
//
// Any thread may call anything.

#include "platform/net/descriptor.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vyn::rpc {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  class Watcher {
   public:
    virtual ~Watcher() = default;
    /// The descriptor became readable or writable, or its peer left; it is not told again until that happens
    /// anew. \param events of epoll(7). Several threads may be in it at once, and it may be told once more
    /// behind its Unwatch.
    virtual void OnReady(std::uint32_t events) = 0;
  };

  /// \param failed told what was thrown by what the loop called, which then goes on; must not throw. Throws
  /// std::system_error without descriptors.
  explicit EventLoop(std::function<void(const char* what)> failed);

  /// Reports `descriptor` to `watcher`, which is kept until Unwatch. Returns: false when the system refuses.
  bool Watch(int descriptor, std::shared_ptr<Watcher> watcher);
  /// Requires: the descriptor is still open.
  void Unwatch(int descriptor);
  /// Calls `tick` about every `period`, on one of the threads. Requires: before Run.
  void SetTick(std::chrono::milliseconds period, std::function<void()> tick);
  /// Runs until Stop. \param after is called after the events of each wait, when nothing is left to be done
  /// for them, and may take its time.
  void Run(const std::function<void()>& after);

  /// Runs `function` on one of the threads, soon.
  void Post(std::function<void()> function);
  /// Lets one thread that waits go through `after`.
  void Wake();
  void Stop();
  /// The time when the last wait ended.
  Clock::time_point Now() const { return mNow.load(std::memory_order_relaxed); }
  /// For the time behind Run: runs what was posted late.
  bool RunPosted();

 private:
  std::shared_ptr<Watcher> Find(int descriptor);
  /// Calls it; what it throws harms nothing else that this thread has in hand.
  template <typename Function>
  void Guarded(const Function& function) {
    try {
      function();
    } catch (const std::exception& failure) {  // no memory, most likely
      mFailed(failure.what());
    }
  }
  void Handle(int descriptor, std::uint32_t events);
  bool Add(int descriptor, std::uint32_t events);

  const std::function<void(const char*)> mFailed;
  Descriptor mEpoll;
  Descriptor mWake;
  Descriptor mTimer;
  std::function<void()> mTick;
  std::atomic<Clock::time_point> mNow{Clock::now()};
  std::atomic<bool> mStopped{false};

  /// Guards mWatchers and mPosted.
  std::mutex mMutex;
  std::vector<std::shared_ptr<Watcher>> mWatchers;  // by descriptor
  std::vector<std::function<void()>> mPosted;
};

}  // namespace vyn::rpc
