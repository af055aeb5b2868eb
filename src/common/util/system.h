#pragma once

// Host name and monotonic time. Any thread may call these functions.

#include <string>

namespace vyn::common {

/// Returns: the node name of uname; the empty text when uname fails.
std::string VynGetHostname();

/// Returns: the monotonic time in MILLIseconds, despite the name.
unsigned long VynGetCurrentTimeMicros();

}  // namespace vyn::common
