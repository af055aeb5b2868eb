#pragma once

// How much the RPC clients measure: 0 nothing, 1 a log line of times for each operation that measures itself,
// 2 also the phases of every call. Any thread may use it.

#include <atomic>

namespace vyn::common {

class TimeCounter {
 public:
  /// Sets the level. Refuses a level above 2 with a warning and keeps the old one.
  static void SetTimeCountLevel(unsigned char level);

  /// Every call reads it, without a lock.
  static std::atomic<unsigned char> timeCounterLevel;
};

}  // namespace vyn::common
