#include "common/log/logging.h"

#include <spdlog/spdlog.h>

namespace vyn::common::logging {

void Write(int level, const std::string& text) {
  auto* logger = utilities::log::ULog::gLogger.load(std::memory_order_acquire);
  if (logger == nullptr) {
    return;
  }
  logger->mLogger->log(static_cast<spdlog::level::level_enum>(level), "{}", text);
}

void WriteAt(int level, const char* file, int line, const std::string& message) {
  std::ostringstream stream;
  stream << file << ":" << line << "] " << message;
  Write(level, stream.str());
}

}  // namespace vyn::common::logging
