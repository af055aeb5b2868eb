#include "common/wait/periodic_task.h"

#include "common/log/exceptions.h"
#include "common/util/clock.h"

#include <utility>

namespace vyn::common {

PeriodicTask::~PeriodicTask() { Stop(); }

void PeriodicTask::Start(const Options& options, std::function<void()> round) {
  Stop();
  {
    sync::MutexLock lock(mMutex);
    mPeriod = options.period;
    mWoken = options.atOnce;
    mStopping = false;
  }
  mThread = std::thread([this, options, round = std::move(round)] { Run(options, round); });
}

void PeriodicTask::Wake() {
  {
    sync::MutexLock lock(mMutex);
    mWoken = true;
  }
  mWake.NotifyAll();
}

void PeriodicTask::SetPeriod(std::chrono::nanoseconds period) {
  sync::MutexLock lock(mMutex);
  mPeriod = period;
}

void PeriodicTask::RequestStop() {
  {
    sync::MutexLock lock(mMutex);
    mStopping = true;
  }
  mWake.NotifyAll();
}

bool PeriodicTask::Stopping() const {
  sync::MutexLock lock(mMutex);
  return mStopping;
}

bool PeriodicTask::Stop() {
  RequestStop();
  if (!mThread.joinable()) {
    return false;
  }
  mThread.join();
  return true;
}

void PeriodicTask::Run(const Options& options, const std::function<void()>& round) {
  sync::MutexLock lock(mMutex);
  for (;;) {
    const auto due = [this]() VYN_REQUIRES(mMutex) { return mWoken || mStopping; };
    if (options.realTime) {
      mWake.WaitFor(lock, mPeriod, due);
    } else {
      WaitFor(mWake, lock, mPeriod, due);
    }
    if (mStopping) {
      return;
    }
    mWoken = false;
    lock.Unlock();
    try {
      round();
    } catch (...) {  // probably bad_alloc; the next round may succeed
      static_cast<void>(StatusOfException(options.failure));
    }
    lock.Lock();
  }
}

}  // namespace vyn::common
