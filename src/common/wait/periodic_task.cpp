#include "common/wait/periodic_task.h"

#include "common/log/exceptions.h"
#include "common/util/clock.h"

#include <utility>

namespace vyn::common {

PeriodicTask::~PeriodicTask() { Stop(); }

void PeriodicTask::Start(const Options& options, std::function<void()> round) {
  Stop();
  mPeriod = options.period;
  mWoken = options.atOnce;
  mStopping = false;
  mThread = std::thread([this, failure = options.failure, round = std::move(round)] { Run(failure, round); });
}

void PeriodicTask::Wake() {
  {
    std::lock_guard lock(mMutex);
    mWoken = true;
  }
  mWake.notify_all();
}

void PeriodicTask::SetPeriod(std::chrono::nanoseconds period) {
  std::lock_guard lock(mMutex);
  mPeriod = period;
}

void PeriodicTask::RequestStop() {
  {
    std::lock_guard lock(mMutex);
    mStopping = true;
  }
  mWake.notify_all();
}

bool PeriodicTask::Stopping() const {
  std::lock_guard lock(mMutex);
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

void PeriodicTask::Run(const char* failure, const std::function<void()>& round) {
  std::unique_lock lock(mMutex);
  for (;;) {
    WaitFor(mWake, lock, mPeriod, [this] { return mWoken || mStopping; });
    if (mStopping) {
      return;
    }
    mWoken = false;
    lock.unlock();
    try {
      round();
    } catch (...) {  // probably bad_alloc; the next round may succeed
      static_cast<void>(StatusOfException(failure));
    }
    lock.lock();
  }
}

}  // namespace vyn::common
