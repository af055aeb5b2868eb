#include "common/log/time_counter.h"

#include "common/log/logging.h"

namespace vyn::common {

std::atomic<unsigned char> TimeCounter::timeCounterLevel{0};

void TimeCounter::SetTimeCountLevel(unsigned char level) {
  constexpr unsigned char kMostDetailed = 2;
  if (level > kMostDetailed) {
    VYN_LOG_WARN("Failed to set profile level to <" << +level << ">, keep the original level <"
                                                    << +timeCounterLevel.load() << ">.");
    return;
  }
  timeCounterLevel = level;
  VYN_LOG_INFO("Set profile level to <" << +level << ">.");
}

}  // namespace vyn::common
