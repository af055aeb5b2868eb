#pragma once

// The level table, the set-up of a process that keeps log files, and the audit line. Any thread may call all
// of it. The forms in which log lines are written stand in common/util/logging.h.

#include <atomic>
#include <mutex>
#include <string>

namespace vyn::common {

class Log {
 public:
  /// Opens "<dir>/vynd.<host name>.log" through ULOG_Init and "<dir>/vynd.audit.<host name>.log" through
  /// ULOG_AuditInit. \param type, level, fileSize, fileCount as in ULOG_Init. \return 0, or 1; when only the
  /// audit log failed, the main log is in use and holds a warning.
  static unsigned int Initialize(int type, unsigned int level, const std::string& dir, int fileSize,
                                 int fileCount);

  /// Returns: "TRACE" to "CRITICAL" for 0 to 5, "Invalid" for any other number.
  static std::string LogLevelToString(unsigned int level);
  /// Returns: the number of an exact level name. Any other text is complained about on standard output and
  /// gives 2.
  static unsigned int StringToLogLevel(const std::string& name);

  /// The level given to the last Initialize.
  static std::atomic<unsigned int> gLevel;
  /// Set for good once StringToLogLevel has met "DEBUG".
  static std::atomic<bool> mDebugEnabled;

 private:
  /// Serialises Initialize.
  static std::mutex gLock;
};

/// Writes the audit line "[subject][operation][target][result]", cut to 4095 characters. Four texts of 4096
/// or more characters together give a complaint in the log instead, a null text gives nothing.
void AuditGlog(const char* subject, const char* operation, const char* target, const char* result);

}  // namespace vyn::common
