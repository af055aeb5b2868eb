#pragma once

// The last-error record of a thread. A failing operation writes it; BroadcastGetLastErrorMessage and
// BmGetLastErrorMessage return its text. A later success does not clear it: read it only after an operation
// has reported a failure, on the same thread. Each thread has its own record, so there is no lock.

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
/// The same, with `detail` as mDetail.
unsigned int VynSetErrorInfo(unsigned int code, const std::string& message, int detail);
/// Replaces the thread's record by a new one with the code and the message of `info`. `info` may be the
/// record itself; null clears the record. Writes no log line. Returns: 0.
unsigned int VynSetErrorInfo(const ErrorInfo* info);
/// As VynSetErrorInfo(code, message), but the log line names `file` and `line`. For VYN_FAIL.
unsigned int VynSetErrorInfoAt(const char* file, int line, unsigned int code, const std::string& message);

/// Returns: the thread's record or null. The caller must not delete it. It is valid until the thread's next
/// failure.
ErrorInfo* RetrieveErrorInfo();

/// Returns: the text of the thread's record; empty without one. For messages that end with the last error.
const char* LastErrorText();

}  // namespace vyn::common
