#include "common/util/clock.h"

#include <atomic>
#include <thread>

namespace vyn::common {

namespace {

std::atomic<Clock*> gReplacement{nullptr};

}  // namespace

std::chrono::steady_clock::time_point Clock::Now() { return std::chrono::steady_clock::now(); }

void Clock::SleepFor(std::chrono::nanoseconds duration) {
  if (duration.count() > 0) {
    std::this_thread::sleep_for(duration);
  }
}

void Clock::WaitFor(std::condition_variable& condition, std::unique_lock<std::mutex>& lock,
                    std::chrono::nanoseconds duration) {
  condition.wait_for(lock, duration);
}

Clock& Clock::Get() {
  static Clock& real = *new Clock;  // never destroyed: threads use it while the process exits
  Clock* replacement = gReplacement.load(std::memory_order_acquire);
  return replacement != nullptr ? *replacement : real;
}

void Clock::Replace(Clock* clock) { gReplacement.store(clock, std::memory_order_release); }

}  // namespace vyn::common
