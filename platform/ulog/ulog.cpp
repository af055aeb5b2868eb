#include "platform/ulog/ulog.h"

#include "platform/sync/mutex.h"
#include "platform/ulog/file_sink.h"
#include "platform/ulog/level.h"

#include <pthread.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include <exception>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace vyn::utilities::log {

std::atomic<ULog*> ULog::gLogger{nullptr};

namespace {

std::atomic<ULog*> gAuditLogger{nullptr};

thread_local std::string gLastError;

constexpr const char* kPattern = "%Y-%m-%d %H:%M:%S.%f %l [%P:%t] %v";
constexpr int kTrace = 0;
constexpr int kDebug = 1;
constexpr int kCritical = 5;
constexpr unsigned int kBitsOfMebibyte = 20;

int Refuse(std::string message) {
  gLastError = std::move(message);
  return 1;
}

/// Runs `body`. Returns: its result, or 1 with the reason when it throws. No exception leaves an exported
/// function, also when there is no memory for the reason.
template <typename Body>
int Guarded(const Body& body) {
  try {
    try {
      return body();
    } catch (const std::bad_alloc&) {
      throw;
    } catch (const std::exception& failure) {
      return Refuse(failure.what());
    }
  } catch (...) {
    gLastError = "no memory";  // short enough to need no allocation
    return 1;
  }
}

bool IsLevel(int level) { return level >= kTrace && level <= kCritical; }

/// Publishes a logger. Every logger ever made is kept: a thread may still be writing through a replaced one.
void Publish(std::atomic<ULog*>& place, int level, std::shared_ptr<spdlog::sinks::sink> sink) {
  static sync::Mutex keptMutex;
  static std::vector<std::unique_ptr<ULog>>& kept VYN_GUARDED_BY(keptMutex) =
      *new std::vector<std::unique_ptr<ULog>>;
  auto made = std::make_unique<ULog>();
  made->mLogger = std::make_shared<spdlog::logger>("vyn", std::move(sink));
  made->mLogger->set_level(static_cast<spdlog::level::level_enum>(level));
  made->mLevel = level;
  made->mDebugEnabled = level <= kDebug;
  sync::MutexLock lock(keptMutex);
  kept.push_back(std::move(made));
  place.store(kept.back().get(), std::memory_order_release);
}

/// Throws spdlog::spdlog_ex when the arguments are refused or the file cannot be opened.
std::shared_ptr<spdlog::sinks::sink> OpenFile(const char* path, int fileSize, int fileCount, bool isPrivate) {
  if (path == nullptr || path[0] == '\0') {
    throw spdlog::spdlog_ex("No path given for a log file");
  }
  if (fileSize < 1 || fileCount < 1) {
    throw spdlog::spdlog_ex("Invalid limits of the log file " + std::string(path) + ": size " +
                            std::to_string(fileSize) + " MiB, count " + std::to_string(fileCount) +
                            "; both must be at least 1");
  }
  return MakeFileSink({path, kPattern, static_cast<std::size_t>(fileSize) << kBitsOfMebibyte,
                       static_cast<std::size_t>(fileCount), isPrivate});
}

std::shared_ptr<spdlog::sinks::sink> OpenStandardError() {
  // A forked child gets the mutex of all such sinks anew: a thread that only its parent has may have held it.
  [[maybe_unused]] static const int registered =
      ::pthread_atfork(nullptr, nullptr, [] { new (&spdlog::details::console_mutex::mutex()) std::mutex; });
  auto sink = std::make_shared<spdlog::sinks::stderr_sink_mt>();
  sink->set_pattern(kPattern);
  return sink;
}

int Write(const std::atomic<ULog*>& place, int level, const char* prefix, const char* message) {
  const ULog* logger = place.load(std::memory_order_acquire);
  if (logger == nullptr) {
    return Refuse("The log is not set up");
  }
  if (prefix == nullptr || message == nullptr) {
    return Refuse("A log line without prefix or message");
  }
  if (!IsLevel(level)) {
    return Refuse("Invalid log level " + std::to_string(level));
  }
  logger->mLogger->log(static_cast<spdlog::level::level_enum>(level), "{}{}", prefix, message);
  return 0;
}

/// A text in one line: what an audit line says came from clients, and must not look like a line of its own.
std::string InOneLine(const char* text) {
  std::string line;
  for (; *text != '\0'; ++text) {
    const auto byte = static_cast<unsigned char>(*text);
    if (byte < 0x20 || byte == 0x7f) {
      line += fmt::format("\\x{:02x}", byte);
    } else {
      line += *text;
    }
  }
  return line;
}

}  // namespace

}  // namespace vyn::utilities::log

using namespace vyn::utilities::log;

int ULOG_Init(int type, int level, const char* path, int fileSize, int fileCount) {
  return Guarded([&] {
    if (!IsLevel(level)) {
      return Refuse("Invalid log level " + std::to_string(level) + ", it must be 0 to 5");
    }
    if (type == ULOG_TYPE_FILE) {
      Publish(ULog::gLogger, level, OpenFile(path, fileSize, fileCount, false));
    } else if (type == ULOG_TYPE_STDERR) {
      Publish(ULog::gLogger, level, OpenStandardError());
    } else {
      return Refuse("Invalid log type " + std::to_string(type) +
                    ", it must be 1 (file) or 2 (standard error)");
    }
    return 0;
  });
}

int ULOG_SetLevel(int level) {
  return Guarded([&] {
    const ULog* logger = ULog::gLogger.load(std::memory_order_acquire);
    if (logger == nullptr) {
      return Refuse("The log is not set up");
    }
    if (!IsLevel(level)) {
      return Refuse("Invalid log level " + std::to_string(level) + ", it must be 0 to 5");
    }
    Publish(ULog::gLogger, level, logger->mLogger->sinks().front());
    return 0;
  });
}

int ULOG_AuditInit(const char* path, int fileSize, int fileCount) {
  return Guarded([&] {
    Publish(gAuditLogger, kTrace, OpenFile(path, fileSize, fileCount, true));
    return 0;
  });
}

int ULOG_LogMessage(int level, const char* prefix, const char* message) {
  return Guarded([&] { return Write(ULog::gLogger, level, prefix, message); });
}

int ULOG_AuditLogMessage(int level, const char* prefix, const char* message) {
  return Guarded([&] {
    return Write(gAuditLogger, level, prefix, message == nullptr ? nullptr : InOneLine(message).c_str());
  });
}

const char* ULOG_GetLastErrorMessage() { return gLastError.c_str(); }
