#include "common/util/system.h"

#include "common/util/clock.h"

#include <sys/utsname.h>

#include <chrono>

namespace vyn::common {

std::string VynGetHostname() {
  utsname names{};
  return ::uname(&names) == 0 ? names.nodename : "";
}

unsigned long VynGetCurrentTimeMicros() {
  const auto sinceBoot = SteadyNow().time_since_epoch();
  return static_cast<unsigned long>(std::chrono::duration_cast<std::chrono::milliseconds>(sinceBoot).count());
}

}  // namespace vyn::common
