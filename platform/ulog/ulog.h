#pragma once

// The process logger and the audit log, over spdlog.
//
// One logger a process: ULOG_Init makes it and publishes it in ULog::gLogger. Before that every logging form
// is silent. All functions may be called from any thread, ULOG_Init and ULOG_AuditInit also while other
// threads log.
//
// Each line is written to the file at once: no line is lost when the process ends or is killed, and a reader
// of the file sees each line immediately. A line that cannot be written, for example on a full disk, is lost.
// The logger reports that on standard error, at most once a second, and tries once a second to open the file
// again.
//
// A line is "<date> <time with microseconds> <level> [<process id>:<thread id>] <text>".

#include <atomic>
#include <cstdint>
#include <memory>

namespace spdlog {
class logger;
}

namespace vyn::utilities::log {

/// The process logger. Levels count as spdlog's own: 0 trace, 1 debug, 2 info, 3 warn, 4 error, 5 critical.
class ULog {
 public:
  std::shared_ptr<spdlog::logger> mLogger;
  /// Lines below this level are not written.
  std::int32_t mLevel = 2;
  /// Whether debug lines are written. Set when the level given to ULOG_Init is debug or trace.
  bool mDebugEnabled = false;

  /// Null until ULOG_Init has succeeded. An object that it has pointed to is never deleted or changed: a
  /// thread may use it until the end of the process.
  static std::atomic<ULog*> gLogger;
};

}  // namespace vyn::utilities::log

extern "C" {

/// Output of ULOG_Init.
enum ULogType : int {
  ULOG_TYPE_FILE = 1,    ///< a rotating file
  ULOG_TYPE_STDERR = 2,  ///< standard error
};

/// Makes the process logger, or replaces it.
/// \param type a ULogType. \param level 0 to 5.
/// \param path, fileSize, fileCount only read for ULOG_TYPE_FILE: the file, whose missing folders are made;
/// the MiB at which it rotates; how many older files are kept ("x.log" becomes "x.1.log", and so on). Both
/// numbers at least 1. \return 0 on success; otherwise ULOG_GetLastErrorMessage() has the reason, and the old
/// logger stays.
int ULOG_Init(int type, int level, const char* path, int fileSize, int fileCount);

/// Opens the audit log, a rotating file of mode 0600, or replaces it. Arguments and result as in ULOG_Init.
int ULOG_AuditInit(const char* path, int fileSize, int fileCount);

/// Writes one line to the process log. `prefix` is put before the message.
/// \return 0; otherwise nothing was written: a null argument, a level outside 0 to 5, or no logger yet.
int ULOG_LogMessage(int level, const char* prefix, const char* message);

/// Writes one line to the audit log. Result as in ULOG_LogMessage. Every level is written.
int ULOG_AuditLogMessage(int level, const char* prefix, const char* message);

/// This thread's last failure in this library, or the empty text. Valid until the thread's next failure.
const char* ULOG_GetLastErrorMessage();

}  // extern "C"
