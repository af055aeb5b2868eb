#pragma once

// The logging macros. Every log line of the system is written by one of them.
//
// A macro takes a stream expression and evaluates it only if lines of its level are written:
//
//   VYN_LOG_ERROR("Failed to rename " << from << " to " << to);
//
// The text of a line is "<source file>:<line>] <message>". A level that is not written costs one check of a
// pointer and one comparison, and no allocation. Any thread may use the macros, also before the logger
// exists; then they write nothing.

#include "common/log/error_info.h"
#include "platform/ulog/ulog.h"
#include "vyn/status.h"

#include <sstream>
#include <string>

namespace vyn::common::logging {

// The level numbers of ULOG_Init.
inline constexpr int kDebug = 1;
inline constexpr int kInfo = 2;
inline constexpr int kWarn = 3;
inline constexpr int kError = 4;

/// Whether lines of `level` are written.
inline bool Gate(int level) noexcept {
  const auto* logger = utilities::log::ULog::gLogger.load(std::memory_order_acquire);
  return logger != nullptr && logger->mLevel < level + 1;
}
inline bool ErrorGate() noexcept { return Gate(kError); }
inline bool WarnGate() noexcept { return Gate(kWarn); }
inline bool InfoGate() noexcept { return Gate(kInfo); }
inline bool DebugGate() noexcept {
  const auto* logger = utilities::log::ULog::gLogger.load(std::memory_order_acquire);
  return logger != nullptr && logger->mDebugEnabled;
}

/// Writes `text` to the log. Requires: Gate(level).
void Write(int level, const std::string& text);
/// Writes "<file>:<line>] <message>". Requires: Gate(level).
void WriteAt(int level, const char* file, int line, const std::string& message);

}  // namespace vyn::common::logging

#define VYN_LOG_AT(GATE, LEVEL, STREAM)                                   \
  do {                                                                    \
    if (::vyn::common::logging::GATE()) {                                 \
      std::ostringstream vynLogStream;                                    \
      vynLogStream << __FILE_NAME__ << ":" << __LINE__ << "] " << STREAM; \
      ::vyn::common::logging::Write(LEVEL, vynLogStream.str());           \
    }                                                                     \
  } while (false)

#define VYN_LOG_ERROR(STREAM) VYN_LOG_AT(ErrorGate, ::vyn::common::logging::kError, STREAM)
#define VYN_LOG_WARN(STREAM) VYN_LOG_AT(WarnGate, ::vyn::common::logging::kWarn, STREAM)
#define VYN_LOG_INFO(STREAM) VYN_LOG_AT(InfoGate, ::vyn::common::logging::kInfo, STREAM)
#define VYN_LOG_DEBUG(STREAM) VYN_LOG_AT(DebugGate, ::vyn::common::logging::kDebug, STREAM)

/// Checks a pointer. When it is null, logs "Unexpected nullptr value NAME" and makes the function return
/// 2000057.
#define VYN_CHECK_POINTER_NAMED(POINTER, NAME)            \
  do {                                                    \
    if ((POINTER) == nullptr) {                           \
      VYN_LOG_ERROR("Unexpected nullptr value " << NAME); \
      return VYN_ERR_NULL_POINTER;                        \
    }                                                     \
  } while (false)

/// The same with the variable's own name.
#define VYN_CHECK_POINTER(VARIABLE) VYN_CHECK_POINTER_NAMED(VARIABLE, #VARIABLE)

/// Checked call: logs "Failed to execute CALL" and returns the call's status when it failed.
#define VYN_CHECK_CALL(CALL)                        \
  do {                                              \
    const unsigned int vynCallStatus = (CALL);      \
    if (::vyn::Failed(vynCallStatus)) {             \
      VYN_LOG_ERROR("Failed to execute " << #CALL); \
      return vynCallStatus;                         \
    }                                               \
  } while (false)

/// Assertion: logs "Failed assert as CONDITION" and returns CODE when the condition is false.
#define VYN_ASSERT(CONDITION, CODE)                     \
  do {                                                  \
    if (!(CONDITION)) {                                 \
      VYN_LOG_ERROR("Failed assert as " << #CONDITION); \
      return CODE;                                      \
    }                                                   \
  } while (false)

/// Records a failure: writes the streamed text into the thread's last-error record and into the log. An
/// expression whose value is CODE: `return VYN_FAIL(code, "text " << value);`.
#define VYN_FAIL(CODE, STREAM)                                                                   \
  ([&]() -> unsigned int {                                                                       \
    std::ostringstream vynFailStream;                                                            \
    vynFailStream << STREAM;                                                                     \
    return ::vyn::common::VynSetErrorInfoAt(__FILE_NAME__, __LINE__, CODE, vynFailStream.str()); \
  }())
