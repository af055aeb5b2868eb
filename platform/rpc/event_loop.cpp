#include "platform/rpc/event_loop.h"

#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

namespace vyn::rpc {

namespace {

/// Events taken in one wait.
constexpr int kBatch = 64;

epoll_event NewEvent(std::uint32_t events, EventLoop::Watcher* watcher) {
  epoll_event event{};
  event.events = events;
  event.data.ptr = watcher;
  return event;
}

}  // namespace

EventLoop::EventLoop() : mEpoll(epoll_create1(EPOLL_CLOEXEC)), mWake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  // The loop's own wake-up is the one descriptor without a watcher.
  if (!mEpoll || !mWake || !Watch(mWake.Get(), EPOLLIN, nullptr)) {
    throw std::system_error(errno, std::generic_category(), "event loop");
  }
}

bool EventLoop::Watch(int descriptor, std::uint32_t events, Watcher* watcher) {
  epoll_event event = NewEvent(events, watcher);
  return epoll_ctl(mEpoll.Get(), EPOLL_CTL_ADD, descriptor, &event) == 0;
}

void EventLoop::Change(int descriptor, std::uint32_t events, Watcher* watcher) {
  epoll_event event = NewEvent(events, watcher);
  epoll_ctl(mEpoll.Get(), EPOLL_CTL_MOD, descriptor, &event);
}

void EventLoop::Unwatch(int descriptor) { epoll_ctl(mEpoll.Get(), EPOLL_CTL_DEL, descriptor, nullptr); }

void EventLoop::SetTick(std::chrono::milliseconds period, std::function<void()> tick) {
  mPeriod = period;
  mTick = std::move(tick);
}

void EventLoop::Run() {
  std::array<epoll_event, kBatch> events;
  auto nextTick = Now() + mPeriod;
  for (bool running = true; running;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(nextTick - Now()).count();
    const int count =
        epoll_wait(mEpoll.Get(), events.data(), kBatch, static_cast<int>(std::max<long>(left, 0)));
    mNow.store(Clock::now(), std::memory_order_relaxed);
    bool woken = false;
    for (int i = 0; i < count; ++i) {
      const epoll_event& event = events[static_cast<std::size_t>(i)];
      if (event.data.ptr == nullptr) {
        woken = true;
      } else {
        static_cast<Watcher*>(event.data.ptr)->OnReady(event.events);
      }
    }
    if (woken) {
      std::uint64_t ignored;
      static_cast<void>(read(mWake.Get(), &ignored, sizeof(ignored)));
      {
        std::lock_guard lock(mMutex);
        mWoken = false;
        running = !mStopped;
      }
      RunPosted();
    }
    if (Now() >= nextTick) {
      if (mTick) {
        mTick();
      }
      nextTick = Now() + mPeriod;
    }
  }
}

bool EventLoop::RunPosted() {
  std::vector<std::function<void()>> posted;
  {
    std::lock_guard lock(mMutex);
    posted.swap(mPosted);
  }
  for (const auto& function : posted) {
    function();
  }
  return !posted.empty();
}

void EventLoop::Post(std::function<void()> function) {
  std::lock_guard lock(mMutex);
  mPosted.push_back(std::move(function));
  Wake();
}

void EventLoop::Stop() {
  std::lock_guard lock(mMutex);
  mStopped = true;
  Wake();
}

/// With mMutex held.
void EventLoop::Wake() {
  if (!mWoken) {
    mWoken = true;
    const std::uint64_t one = 1;
    static_cast<void>(write(mWake.Get(), &one, sizeof(one)));
  }
}

}  // namespace vyn::rpc
