#pragma once

// Several threads wait for the events of many descriptors.
//
// A descriptor is registered once, edge-triggered and for all its events, so that a request costs one wait,
// one read and one write. A thread may take long over an event: the others go on waiting, and the system
// wakes the one that began to wait last.
//
// Any thread may call anything.

#include "platform/net/descriptor.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <vector>

namespace vyn::rpc {

class EventLoop {
 public:
  using Clock = std::chrono::steady_clock;

  class Watcher {
   public:
    virtual ~Watcher() = default;
    /// The descriptor became readable or writable, or its peer left. Each change is reported once. \param
    /// events of epoll(7). Several threads may call this at once, and one more call may come after Unwatch.
    virtual void OnReady(std::uint32_t events) = 0;
  };

  /// \param failed called with the text of an exception that a function called by the loop has thrown; the
  /// loop then goes on. Must not throw. Throws std::system_error without descriptors.
  explicit EventLoop(std::function<void(const char* what)> failed);

  /// Reports `descriptor` to `watcher`, which is kept until Unwatch. Returns: false when the system refuses.
  bool Watch(int descriptor, std::shared_ptr<Watcher> watcher);
  /// Requires: the descriptor is still open.
  void Unwatch(int descriptor);
  /// Calls `tick` about every `period`, on one of the threads. Requires: before Run.
  void SetTick(std::chrono::milliseconds period, std::function<void()> tick);
  /// Runs until Stop. \param after called after the events of each wait have been handled; may take long.
  void Run(const std::function<void()>& after);

  /// Runs `function` on one of the threads, soon.
  void Post(std::function<void()> function);
  /// Wakes one waiting thread, which then calls `after`.
  void Wake();
  void Stop();
  /// The time when the last wait ended.
  Clock::time_point Now() const { return mNow.load(std::memory_order_relaxed); }
  /// After Run has returned: runs the functions that were posted late. Returns: whether there were any.
  bool RunPosted();

 private:
  std::shared_ptr<Watcher> Find(int descriptor);
  /// Calls `function` and reports what it throws, so that this thread goes on with its other events.
  template <typename Function>
  void Guarded(const Function& function) {
    try {
      function();
    } catch (const std::exception& failure) {  // in practice bad_alloc
      mFailed(failure.what());
    }
  }
  void Handle(int descriptor, std::uint32_t events);
  bool Add(int descriptor, std::uint32_t events);

  const std::function<void(const char*)> mFailed;
  net::Descriptor mEpoll;
  net::Descriptor mWake;
  net::Descriptor mTimer;
  std::function<void()> mTick;
  std::atomic<Clock::time_point> mNow{Clock::now()};
  std::atomic<bool> mStopped{false};

  sync::Mutex mMutex;
  std::vector<std::shared_ptr<Watcher>> mWatchers VYN_GUARDED_BY(mMutex);  // by descriptor
  std::vector<std::function<void()>> mPosted VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::rpc
