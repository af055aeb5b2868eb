#include "common/wait/claim_once.h"

#include "common/util/clock.h"

namespace vyn::common {

ClaimOnce::Result ClaimOnce::Take(std::chrono::nanoseconds limit, std::uint32_t* failure) {
  sync::MutexLock lock(mMutex);
  const std::uint64_t before = mFailures;
  const auto ended = [&]() VYN_REQUIRES(mMutex) {
    return mState != State::kClaimed || (failure != nullptr && mFailures != before);
  };
  if (!WaitFor(mChanged, lock, limit, ended)) {
    return Result::kTimedOut;
  }
  if (failure != nullptr && mFailures != before) {
    *failure = mLastFailure;
    return Result::kFailed;
  }
  if (mState == State::kUp) {
    return Result::kUp;
  }
  mState.store(State::kClaimed, std::memory_order_release);
  return Result::kClaimed;
}

void ClaimOnce::Change(State state) {
  mState.store(state, std::memory_order_release);
  mChanged.NotifyAll();
}

void ClaimOnce::Succeed() {
  sync::MutexLock lock(mMutex);
  Change(State::kUp);
}

void ClaimOnce::Fail(std::uint32_t status) {
  sync::MutexLock lock(mMutex);
  ++mFailures;
  mLastFailure = status;
  Change(State::kDown);
}

bool ClaimOnce::TakeDown() {
  sync::MutexLock lock(mMutex);
  if (mState != State::kUp) {
    return false;
  }
  Change(State::kClaimed);
  return true;
}

void ClaimOnce::Free() {
  sync::MutexLock lock(mMutex);
  Change(State::kDown);
}

}  // namespace vyn::common
