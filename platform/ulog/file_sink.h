#pragma once

// The rotating file behind the process log and the audit log.

#include <spdlog/sinks/sink.h>

#include <memory>
#include <string>

namespace vyn::utilities::log {

struct FileSinkOptions {
  std::string path;
  std::string pattern;  ///< of a line, as spdlog reads it
  std::size_t bytes;    ///< size at which the file rotates
  std::size_t count;    ///< older files kept
  bool isPrivate;       ///< mode 0600, whatever the umask and an older file say
};

/// Throws spdlog::spdlog_ex, with the reason, when the file cannot be opened. A line that cannot be written
/// later is lost: log() throws, and the spdlog::logger reports it on standard error. The sink tries to open
/// the file again, at most once a second. Threads: any.
std::shared_ptr<spdlog::sinks::sink> MakeFileSink(const FileSinkOptions& options);

}  // namespace vyn::utilities::log
