#include "common/log/error_info.h"

#include "common/log/logging.h"

#include <memory>
#include <new>
#include <utility>

namespace vyn::common {

namespace {

thread_local ErrorInfo* gRecord = nullptr;
/// Set when the thread's RecordOwner has been destroyed. A later failure in this thread makes no record,
/// because nothing would free it.
thread_local bool gThreadEnds = false;

/// Frees the thread's record at thread exit. gRecord is a variable of its own, so that it can still be read
/// while other thread-local objects are destroyed.
struct RecordOwner {
  ~RecordOwner() {
    delete gRecord;
    gRecord = nullptr;
    gThreadEnds = true;
  }
};

/// Returns: a new record; null without memory or once gThreadEnds is set.
ErrorInfo* MakeRecord(unsigned int code, const std::string& message, int detail) noexcept {
  if (gThreadEnds) {
    return nullptr;
  }
  try {
    thread_local RecordOwner owner;
    static_cast<void>(owner);
    return new ErrorInfo(code, message, detail);
  } catch (const std::bad_alloc&) {
    return nullptr;
  }
}

unsigned int Record(const char* file, int line, unsigned int code, const std::string& message, int detail) {
  // `message` may be the old record's text, so the old record is destroyed last.
  const std::unique_ptr<ErrorInfo> old(std::exchange(gRecord, MakeRecord(code, message, detail)));
  if (logging::ErrorGate()) {
    try {
      logging::WriteAt(logging::kError, file, line, message);
    } catch (const std::bad_alloc&) {
      static_cast<void>(code);  // the log line is lost; the caller still gets its status
    }
  }
  return code;
}

}  // namespace

unsigned int VynSetErrorInfo(unsigned int code, const std::string& message) {
  return Record(__FILE_NAME__, __LINE__, code, message, 0);
}

unsigned int VynSetErrorInfo(unsigned int code, const std::string& message, int detail) {
  return Record(__FILE_NAME__, __LINE__, code, message, detail);
}

unsigned int VynSetErrorInfoAt(const char* file, int line, unsigned int code, const std::string& message) {
  return Record(file, line, code, message, 0);
}

unsigned int VynSetErrorInfo(const ErrorInfo* info) {
  const std::unique_ptr<ErrorInfo> old(gRecord);
  gRecord = info == nullptr ? nullptr : MakeRecord(info->mCode, info->mMessage, 0);
  return VYN_OK;
}

ErrorInfo* RetrieveErrorInfo() { return gRecord; }

const char* LastErrorText() { return gRecord == nullptr ? "" : gRecord->mMessage.c_str(); }

}  // namespace vyn::common
