#pragma once

// The names of the log levels, the set-up of log files, and the audit line. Any thread may call these
// functions. The macros that write log lines are in common/log/logging.h.

#include "platform/sync/mutex.h"

#include <atomic>
#include <string>

namespace vyn::common {

class Log {
 public:
  /// Opens "<dir>/vynd.<host name>.log" through ULOG_Init and "<dir>/vynd.audit.<host name>.log" through
  /// ULOG_AuditInit. \param type, level, fileSize, fileCount as in ULOG_Init. \return 0, or 1. When only the
  /// audit log fails, the process log is in use and has a warning.
  static unsigned int Initialize(int type, unsigned int level, const std::string& dir, int fileSize,
                                 int fileCount);

  /// Returns: "TRACE" to "CRITICAL" for 0 to 5, "Invalid" for any other number.
  static std::string LogLevelToString(unsigned int level);
  /// Returns: the number of an exact level name. For any other text prints a line to standard output and
  /// returns 2 (INFO).
  static unsigned int StringToLogLevel(const std::string& name);

  /// The level of a log on standard error: "off" or a level name in the environment variable VYN_LOG_STDERR
  /// decides, otherwise StringToLogLevel(configured). Any other value of the variable is reported on standard
  /// error and ignored. "off" gives CRITICAL, which no line of the system has.
  static unsigned int StandardErrorLevel(const std::string& configured);

  /// The level given to the last Initialize.
  static std::atomic<unsigned int> gLevel;
  /// True once StringToLogLevel has been given "DEBUG". Never cleared.
  static std::atomic<bool> mDebugEnabled;

 private:
  /// Serialises Initialize.
  static sync::Mutex gLock;
};

/// Writes the audit line "[subject][operation][target][result]", cut to 4095 characters. When the four texts
/// together have 4096 or more, writes a line to the process log instead. When one is null, writes nothing.
void AuditGlog(const char* subject, const char* operation, const char* target, const char* result);

}  // namespace vyn::common
