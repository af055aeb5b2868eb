#include "platform/zk_helper/client_lines.h"

#include "platform/sync/fork.h"
#include "platform/sync/mutex.h"

#include <stdio.h>
#include <zookeeper/zookeeper.h>

#include <string_view>

namespace vyn::utilities::zookeeper {

namespace {

/// Never destroyed: a client may write until the very end of the process.
struct Lines {
  sync::Mutex mMutex;
  std::string mLatest VYN_GUARDED_BY(mMutex);
  std::string mUnfinished VYN_GUARDED_BY(mMutex);  ///< the begin of a line of the stream
  FILE* mStream VYN_GUARDED_BY(mMutex) = nullptr;

  static Lines& Get() { return sync::OneInProcess<Lines>(); }

  /// Takes "2024-11-22 22:09:00,123:77(0x7f):ZOO_ERROR@function@2380: text" and keeps the text.
  void Take(std::string_view line) VYN_REQUIRES(mMutex) {
    const auto mark = line.find(":ZOO_ERROR@");
    const auto text = mark == std::string_view::npos ? mark : line.find(": ", mark);
    if (text != std::string_view::npos) {
      mLatest = line.substr(text + 2);
    }
  }
};

ssize_t OnStream(void*, const char* bytes, std::size_t size) try {
  Lines& lines = Lines::Get();
  sync::MutexLock lock(lines.mMutex);
  lines.mUnfinished.append(bytes, size);
  for (auto end = lines.mUnfinished.find('\n'); end != std::string::npos;
       end = lines.mUnfinished.find('\n')) {
    lines.Take(std::string_view(lines.mUnfinished).substr(0, end));
    lines.mUnfinished.erase(0, end + 1);
  }
  return static_cast<ssize_t>(size);
} catch (...) {  // the client must get no exception; the line is lost
  return static_cast<ssize_t>(size);
}

}  // namespace

void OnClientLine(const char* line) try {
  Lines& lines = Lines::Get();
  sync::MutexLock lock(lines.mMutex);
  lines.Take(line == nullptr ? "" : line);
} catch (...) {
  static_cast<void>(line);  // lost: the client must get no exception
}

void CatchClientStream() {
  Lines& lines = Lines::Get();
  sync::MutexLock lock(lines.mMutex);
  if (lines.mStream == nullptr) {
    lines.mStream = fopencookie(nullptr, "w", {nullptr, &OnStream, nullptr, nullptr});
    if (lines.mStream != nullptr) {
      zoo_set_log_stream(lines.mStream);
    }
  }
}

std::string LastClientLine() {
  Lines& lines = Lines::Get();
  sync::MutexLock lock(lines.mMutex);
  return lines.mLatest;
}

void ForgetClientLine() {
  Lines& lines = Lines::Get();
  sync::MutexLock lock(lines.mMutex);
  lines.mLatest.clear();
}

}  // namespace vyn::utilities::zookeeper
