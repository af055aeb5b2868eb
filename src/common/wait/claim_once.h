#pragma once

// The claim to bring something up once in a process. One thread has it at a time. The others wait for what comes of its
// work.
//
//   down ──Take──▶ claimed ──Succeed──▶ up ──TakeDown──▶ claimed ──Free──▶ down
//                     └──Fail──▶ down
//
// Threads: any. The waits go through the seam of common/util/clock.h.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace vyn::common {

class ClaimOnce {
 public:
  enum class Result {
    kClaimed,   ///< this thread has the claim and owes Succeed, Fail or Free
    kUp,        ///< it is up
    kFailed,    ///< the thread that had the claim has failed
    kTimedOut,  ///< the thread that has the claim did not end in time
  };
  /// No limit for a wait.
  static constexpr std::chrono::nanoseconds kNoLimit = std::chrono::hours(1000000);

  /// Takes the claim, or waits for the thread that has it, at most `limit`.
  /// \param failure receives the status with which that thread failed, and the claim is not taken then. Null: the claim is
  ///        taken as soon as it is free.
  Result Take(std::chrono::nanoseconds limit, std::uint32_t* failure = nullptr);
  /// It is up. What this thread wrote before is visible to every thread that sees IsUp or gets kUp. Requires: the claim.
  void Succeed();
  /// It is down, and those who wait are told `status`. Requires: the claim.
  void Fail(std::uint32_t status);
  /// Turns what is up into a claim of this thread, which takes it down and then calls Free. Returns: false when it is not
  /// up.
  bool TakeDown();
  /// It is down, whoever had the claim.
  void Free();
  bool IsUp() const { return mState.load(std::memory_order_acquire) == State::kUp; }

 private:
  enum class State : std::uint8_t { kDown, kClaimed, kUp };

  void Change(State state);

  std::mutex mMutex;
  std::condition_variable mChanged;
  /// Written under mMutex.
  std::atomic<State> mState{State::kDown};
  // Guarded by mMutex.
  std::uint64_t mFailures = 0;
  std::uint32_t mLastFailure = 0;
};

}  // namespace vyn::common
