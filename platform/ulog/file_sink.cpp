#include "platform/ulog/file_sink.h"

#include <fcntl.h>
#include <spdlog/details/os.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <mutex>

namespace vyn::utilities::log {

namespace {

constexpr std::chrono::seconds kReopenInterval{1};
constexpr mode_t kPrivateMode = 0600;

/// Makes a missing file with the private mode before anything is written; an existing one gets that mode.
void MakePrivate(const std::string& path) {
  namespace os = spdlog::details::os;
  os::create_dir(os::dir_name(path));
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, kPrivateMode);
  const bool failed = descriptor < 0 || ::fchmod(descriptor, kPrivateMode) != 0;
  const int error = errno;
  if (descriptor >= 0) {
    ::close(descriptor);
  }
  if (failed) {
    throw spdlog::spdlog_ex("Failed opening file " + path + " with mode 0600", error);
  }
}

/// Writes through spdlog's rotating file sink, and destroys it once it has thrown: after a failed rotation it
/// has no open file and would write through a null pointer.
class FileSink : public spdlog::sinks::base_sink<std::mutex> {
 public:
  explicit FileSink(const FileSinkOptions& options) : mOptions(options) { Open(); }

 protected:
  void sink_it_(const spdlog::details::log_msg& message) override {
    if (mFile == nullptr) {
      Reopen();
    }
    try {
      mFile->log(message);
      mFile->flush();
    } catch (...) {
      mFile.reset();
      throw;
    }
  }
  void flush_() override {}  // sink_it_ flushes each line

 private:
  void Open() {
    spdlog::file_event_handlers handlers;
    if (mOptions.isPrivate) {
      handlers.before_open = MakePrivate;
    }
    handlers.after_open = [](const std::string&, std::FILE* file) {
      ::fcntl(::fileno(file), F_SETFD, FD_CLOEXEC);
    };
    mFile = std::make_unique<spdlog::sinks::rotating_file_sink_st>(mOptions.path, mOptions.bytes,
                                                                   mOptions.count, false, handlers);
    mFile->set_pattern(mOptions.pattern);
  }
  void Reopen() {
    const auto now = std::chrono::steady_clock::now();
    if (now < mReopenAt) {
      throw spdlog::spdlog_ex("A line for " + mOptions.path + " is lost: the file cannot be written");
    }
    mReopenAt = now + kReopenInterval;
    Open();
  }

  const FileSinkOptions mOptions;
  // Guarded by the mutex of spdlog's base class, which holds it when it calls the functions above.
  std::unique_ptr<spdlog::sinks::rotating_file_sink_st> mFile;
  std::chrono::steady_clock::time_point mReopenAt{};
};

}  // namespace

std::shared_ptr<spdlog::sinks::sink> MakeFileSink(const FileSinkOptions& options) {
  return std::make_shared<FileSink>(options);
}

}  // namespace vyn::utilities::log
