#include "common/log/log.h"

#include "common/log/logging.h"
#include "common/util/system.h"
#include "platform/secure_memory/secure_memory.h"
#include "platform/sync/mutex.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <iostream>

namespace vyn::common {

namespace {

// Indexed by level.
constexpr std::array<const char*, 6> kLevelNames{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "CRITICAL"};
constexpr std::size_t kAuditBufferSize = 4096;

}  // namespace

std::atomic<unsigned int> Log::gLevel{logging::kInfo};
std::atomic<bool> Log::mDebugEnabled{false};
sync::Mutex Log::gLock;

unsigned int Log::Initialize(int type, unsigned int level, const std::string& dir, int fileSize,
                             int fileCount) {
  sync::MutexLock lock(gLock);
  gLevel = level;
  const std::string host = VynGetHostname();
  const std::string path = dir + "/vynd." + host + ".log";
  if (ULOG_Init(type, static_cast<int>(level), path.c_str(), fileSize, fileCount) != 0) {
    return VYN_ERR_GENERIC;
  }
  const std::string auditPath = dir + "/vynd.audit." + host + ".log";
  const int result = ULOG_AuditInit(auditPath.c_str(), fileSize, fileCount);
  if (result != 0) {
    VYN_LOG_WARN("Failed to create audit log with ret " << result);
    return VYN_ERR_GENERIC;
  }
  VYN_LOG_INFO("Audit log created successfully.");
  return VYN_OK;
}

std::string Log::LogLevelToString(unsigned int level) {
  return level < kLevelNames.size() ? kLevelNames[level] : "Invalid";
}

unsigned int Log::StringToLogLevel(const std::string& name) {
  for (unsigned int level = 0; level < kLevelNames.size(); ++level) {
    if (name == kLevelNames[level]) {
      if (level == logging::kDebug) {
        mDebugEnabled = true;
      }
      return level;
    }
  }
  std::cout << "The log level is incorrect." << std::endl;
  return logging::kInfo;
}

unsigned int Log::StandardErrorLevel(const std::string& configured) {
  const unsigned int level = StringToLogLevel(configured);
  const char* wanted = std::getenv("VYN_LOG_STDERR");
  if (wanted == nullptr || wanted[0] == '\0') {
    return level;
  }
  if (std::strcmp(wanted, "off") == 0) {
    return static_cast<unsigned int>(kLevelNames.size() - 1);
  }
  if (std::find(kLevelNames.begin(), kLevelNames.end(), std::string(wanted)) != kLevelNames.end()) {
    return StringToLogLevel(wanted);
  }
  std::cerr << "VYN_LOG_STDERR is neither off nor TRACE, DEBUG, INFO, WARN, ERROR or CRITICAL: " << wanted
            << std::endl;
  return level;
}

void AuditGlog(const char* subject, const char* operation, const char* target, const char* result) {
  if (subject == nullptr || operation == nullptr || target == nullptr || result == nullptr) {
    return;
  }
  const std::size_t length =
      std::strlen(subject) + std::strlen(operation) + std::strlen(target) + std::strlen(result);
  if (length >= kAuditBufferSize) {
    ULOG_LogMessage(logging::kInfo, "", "audit strlen exceed LOG_BUF_LEN.");
    return;
  }
  char line[kAuditBufferSize] = {};
  const int written = snprintf_s(line, sizeof(line), sizeof(line) - 1, "[%s][%s][%s][%s]", subject, operation,
                                 target, result);
  if (written > 0) {
    ULOG_AuditLogMessage(logging::kInfo, "", line);
  }
}

}  // namespace vyn::common
