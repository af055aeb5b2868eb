#pragma once

// The claim to initialise something once in a process. One thread at a time has the claim and does the work;
// the others wait for the result.
//
//   down ──Take──▶ claimed ──Succeed──▶ up ──TakeDown──▶ claimed ──Free──▶ down
//                     └──Fail──▶ down
//
// Any thread may call any operation. A wait uses the clock of common/util/clock.h.

#include "platform/sync/mutex.h"

#include <atomic>
#include <chrono>
#include <cstdint>

namespace vyn::common {

class ClaimOnce {
 public:
  enum class Result {
    kClaimed,   ///< this thread has the claim and must call Succeed, Fail or Free
    kUp,        ///< another thread has succeeded
    kFailed,    ///< the thread that had the claim has failed
    kTimedOut,  ///< the thread that has the claim has not finished in time
  };
  /// The `limit` of a wait that does not end.
  static constexpr std::chrono::nanoseconds kNoLimit = std::chrono::hours(1000000);

  /// Takes the claim if the state is down. If another thread has the claim, waits for it, at most `limit`.
  /// \param failure receives the status with which that thread failed; Take then returns kFailed without the
  ///        claim. With null, Take takes the claim after a failure of that thread.
  Result Take(std::chrono::nanoseconds limit, std::uint32_t* failure = nullptr);
  /// Changes the state to up. A thread that then gets true from IsUp, or kUp, sees what this thread wrote
  /// before. Requires: the claim.
  void Succeed();
  /// Changes the state to down and gives `status` to the waiting threads. Requires: the claim.
  void Fail(std::uint32_t status);
  /// If the state is up, gives this thread the claim; it undoes the initialisation and then calls Free.
  /// Returns: whether the state was up.
  bool TakeDown();
  /// Changes the state to down, whichever thread has the claim.
  void Free();
  bool IsUp() const { return mState.load(std::memory_order_acquire) == State::kUp; }

 private:
  enum class State : std::uint8_t { kDown, kClaimed, kUp };

  void Change(State state) VYN_REQUIRES(mMutex);

  sync::Mutex mMutex;
  sync::Condition mChanged;
  /// Written under mMutex.
  std::atomic<State> mState{State::kDown};
  std::uint64_t mFailures VYN_GUARDED_BY(mMutex) = 0;
  std::uint32_t mLastFailure VYN_GUARDED_BY(mMutex) = 0;
};

}  // namespace vyn::common
