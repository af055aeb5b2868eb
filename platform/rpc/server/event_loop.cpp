#include "platform/rpc/server/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace vyn::rpc {

namespace {

/// Events taken in one wait. No other thread can handle them meanwhile.
constexpr int kBatch = 16;

}  // namespace

EventLoop::EventLoop(std::function<void(const char* what)> failed)
    : mFailed(std::move(failed)),
      mEpoll(epoll_create1(EPOLL_CLOEXEC)),
      mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      mTimer(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
  if (!mEpoll || !mWake || !mTimer || !Add(mWake.Get(), EPOLLIN) || !Add(mTimer.Get(), EPOLLIN)) {
    throw std::system_error(errno, std::generic_category(), "event loop");
  }
}

bool EventLoop::Add(int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events | EPOLLET;
  event.data.fd = descriptor;
  return epoll_ctl(mEpoll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

bool EventLoop::Watch(int descriptor, std::shared_ptr<Watcher> watcher) {
  {
    sync::MutexLock lock(mMutex);
    const auto index = static_cast<std::size_t>(descriptor);
    if (index >= mWatchers.size()) {
      mWatchers.resize(index + 1);
    }
    mWatchers[index] = std::move(watcher);
  }
  if (Add(descriptor, EPOLLIN | EPOLLOUT | EPOLLRDHUP)) {
    return true;
  }
  Unwatch(descriptor);
  return false;
}

void EventLoop::Unwatch(int descriptor) {
  std::shared_ptr<Watcher> watcher;  // outlives the lock
  epoll_ctl(mEpoll.Get(), EPOLL_CTL_DEL, descriptor, nullptr);
  sync::MutexLock lock(mMutex);
  if (const auto index = static_cast<std::size_t>(descriptor); index < mWatchers.size()) {
    watcher.swap(mWatchers[index]);
  }
}

/// An event may arrive after its descriptor was closed: it then finds no watcher, or the watcher of a new
/// descriptor with the same number, which looks and finds nothing.
std::shared_ptr<EventLoop::Watcher> EventLoop::Find(int descriptor) {
  sync::MutexLock lock(mMutex);
  return mWatchers[static_cast<std::size_t>(descriptor)];
}

void EventLoop::SetTick(std::chrono::milliseconds period, std::function<void()> tick) {
  mTick = std::move(tick);
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(period);
  const timespec time{seconds.count(), std::chrono::nanoseconds(period - seconds).count()};
  const itimerspec timer{time, time};
  timerfd_settime(mTimer.Get(), 0, &timer, nullptr);
}

void EventLoop::Run(const std::function<void()>& after) {
  std::array<epoll_event, kBatch> events;
  while (!mStopped) {
    const int count = epoll_wait(mEpoll.Get(), events.data(), kBatch, -1);
    mNow.store(Clock::now(), std::memory_order_relaxed);
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      Guarded([&] { Handle(event.data.fd, event.events); });
    }
    Guarded(after);
  }
  Wake();  // the next thread
}

void EventLoop::Handle(int descriptor, std::uint32_t events) {
  if (descriptor == mWake.Get()) {
    // The eventfd is edge-triggered and never drained: each write to it is reported.
    RunPosted();
  } else if (descriptor == mTimer.Get()) {
    std::uint64_t ignored;
    if (read(mTimer.Get(), &ignored, sizeof(ignored)) > 0 && mTick) {
      mTick();
    }
  } else if (const auto watcher = Find(descriptor)) {
    watcher->OnReady(events);
  }
}

bool EventLoop::RunPosted() {
  std::vector<std::function<void()>> posted;
  {
    sync::MutexLock lock(mMutex);
    posted.swap(mPosted);
  }
  for (const auto& function : posted) {
    Guarded(function);
  }
  return !posted.empty();
}

void EventLoop::Post(std::function<void()> function) {
  {
    sync::MutexLock lock(mMutex);
    mPosted.push_back(std::move(function));
  }
  Wake();
}

void EventLoop::Wake() {
  const std::uint64_t one = 1;
  static_cast<void>(write(mWake.Get(), &one, sizeof(one)));
}

void EventLoop::Stop() {
  mStopped = true;
  Wake();
}

}  // namespace vyn::rpc
