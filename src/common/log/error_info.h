#pragma once

// The per-thread last-error record. A failing operation writes it, an exported reader shows it. It is never
// cleared by a later success: read it only after an operation has reported failure, on the thread that got
// the failure.

#include "common/util/ref.h"

#include <cstdint>
#include <string>
#include <utility>

namespace vyn::common {

class ErrorInfo : public Referable {
 public:
  ErrorInfo(unsigned int code, std::string message, int detail)
      : mCode(code), mMessage(std::move(message)), mDetail(detail) {}
  ~ErrorInfo() override = default;

  unsigned int mCode;
  std::string mMessage;
  int mDetail;
};

/// Replaces the thread's record and writes `message` to the log at error level. Without memory the thread has
/// no record afterwards. Returns: `code`, so that a failing function can end with it.
unsigned int VynSetErrorInfo(unsigned int code, const std::string& message);
/// The same with an extra value kept in mDetail.
unsigned int VynSetErrorInfo(unsigned int code, const std::string& message, int detail);
/// Replaces the thread's record by a copy of code and message of `info`, which may be the record itself; null
/// clears it. Writes no log line. Returns: 0.
unsigned int VynSetErrorInfo(const ErrorInfo* info);
/// As VynSetErrorInfo(code, message), the log line naming the given place. For the logging forms.
unsigned int VynSetErrorInfoAt(const char* file, int line, unsigned int code, const std::string& message);

/// Returns: the thread's record or null. Not the caller's to delete; valid until the thread's next failure.
ErrorInfo* RetrieveErrorInfo();

/// Returns: the text of the thread's record, or the empty text. For messages that end in the last error.
const char* LastErrorText();

}  // namespace vyn::common
