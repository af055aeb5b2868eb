#include "common/wait/claim_once.h"

#include "common/util/clock.h"

namespace vyn::common {

ClaimOnce::Result ClaimOnce::Take(std::chrono::nanoseconds limit, std::uint32_t* failure) {
  std::unique_lock lock(mMutex);
  const std::uint64_t before = mFailures;
  const auto ended = [&] { return mState != State::kClaimed || (failure != nullptr && mFailures != before); };
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
  mChanged.notify_all();
}

void ClaimOnce::Succeed() {
  std::lock_guard lock(mMutex);
  Change(State::kUp);
}

void ClaimOnce::Fail(std::uint32_t status) {
  std::lock_guard lock(mMutex);
  ++mFailures;
  mLastFailure = status;
  Change(State::kDown);
}

bool ClaimOnce::TakeDown() {
  std::lock_guard lock(mMutex);
  if (mState != State::kUp) {
    return false;
  }
  Change(State::kClaimed);
  return true;
}

void ClaimOnce::Free() {
  std::lock_guard lock(mMutex);
  Change(State::kDown);
}

}  // namespace vyn::common
