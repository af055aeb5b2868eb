#pragma once

// Whether operations measure their phases: 0 not at all, 1 one line an operation, 2 also inside every call.

#include <atomic>

namespace vyn::common {

class TimeCounter {
 public:
  /// Takes the levels 0, 1 and 2; any other is refused with a warning and the old one stays.
  static void SetTimeCountLevel(unsigned char level);

  /// Read by every call, without a lock.
  static std::atomic<unsigned char> timeCounterLevel;
};

}  // namespace vyn::common
