#pragma once

// Helpers for the operations of the typed clients: the check of an identifier, and the macro that reports a
// refused argument or a failed call.

#include "common/log/logging.h"
#include "common/util/input_check.h"

#include <string>

namespace vyn::common {

/// Whether `text` is an identifier: 1 to 1024 letters, digits, "_" and "-".
inline bool IsIdentifier(const std::string& text) { return !Failed(InputRegularMatching(text, false)); }

}  // namespace vyn::common

/// Logs STREAM at error level and makes the function return CODE when CONDITION holds.
#define VYN_FAIL_IF(CONDITION, CODE, STREAM) \
  do {                                       \
    if (CONDITION) {                         \
      VYN_LOG_ERROR(STREAM);                 \
      return CODE;                           \
    }                                        \
  } while (false)
