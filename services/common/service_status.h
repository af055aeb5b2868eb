#pragma once

// The statuses of the services, with their descriptions. Any thread may call StatusText.

#include "tessel/message/service_status.h"

#include <cstdint>

namespace vyn::services {

using namespace tessel::service_status;

/// Returns: the description of one of these statuses, "unknown status" for any other.
const char* StatusText(std::uint32_t status);

}  // namespace vyn::services
