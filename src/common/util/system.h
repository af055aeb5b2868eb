#pragma once

// What the running system says of itself. Re-entrant.

#include <string>

namespace vyn::common {

/// Returns: the node name of uname; the empty text when uname fails.
std::string VynGetHostname();

/// Returns: the monotonic clock in MILLIseconds; the name is older than the unit.
unsigned long VynGetCurrentTimeMicros();

}  // namespace vyn::common
