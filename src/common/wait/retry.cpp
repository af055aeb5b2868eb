#include "common/wait/retry.h"

#include "common/util/clock.h"

#include <limits>

namespace vyn::common {

Retry Retry::After(std::span<const Duration> pauses) {
  return {pauses, static_cast<unsigned int>(pauses.size()), Duration::zero()};
}

Retry Retry::Times(unsigned int attempts, Duration pause) { return {{}, attempts - 1, pause}; }

Retry Retry::For(Duration limit, Duration pause) {
  Retry retry({}, std::numeric_limits<unsigned int>::max(), pause);
  retry.mEnd = SteadyNow() + limit;
  return retry;
}

bool Retry::Again() {
  if (mCount >= mLimit) {
    return false;
  }
  const Duration pause = mPauses.empty() ? mPause : mPauses[mCount];
  if (mEnd && SteadyNow() + pause >= *mEnd) {
    return false;
  }
  SleepFor(pause);
  ++mCount;
  return true;
}

}  // namespace vyn::common
