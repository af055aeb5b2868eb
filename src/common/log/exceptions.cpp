#include "common/log/exceptions.h"

#include "common/log/logging.h"

#include <exception>
#include <new>

namespace vyn::common {

namespace {

void LogException(const char* where, const char* text) noexcept {
  try {
    VYN_LOG_ERROR(where << ": " << text);
  } catch (...) {
    static_cast<void>(where);  // the log line is lost; the caller still gets its status
  }
}

}  // namespace

unsigned int StatusOfException(const char* where) noexcept {
  try {
    throw;
  } catch (const std::bad_alloc& failure) {
    LogException(where, failure.what());
    return VYN_ERR_NULL_POINTER;
  } catch (const std::exception& failure) {
    LogException(where, failure.what());
  } catch (...) {
    LogException(where, "unknown exception");
  }
  return VYN_ERR_GENERIC;
}

}  // namespace vyn::common
