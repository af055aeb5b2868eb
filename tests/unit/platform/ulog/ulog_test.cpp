#include "platform/ulog/ulog.h"

#include "common/log/logging.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <spdlog/spdlog.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

namespace vyn::utilities::log {
namespace {

using test::ReadFile;
using test::TempDir;

std::size_t Lines(const std::string& text) {
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

unsigned int Mode(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::stat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

/// Runs `work` in a child process that ends with exit(). Returns: its wait status.
template <typename Work>
int InChild(const Work& work) {
  const pid_t child = ::fork();
  if (child == 0) {
    work();
    std::exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  return status;
}

TEST(ULogTest, RefusesWrongArgumentsAndKeepsTheOldLogger) {
  const TempDir dir;
  const std::string path = dir / "x.log";
  const std::string folder = dir.Path();
  ASSERT_EQ(ULOG_LogMessage(4, "", "early"), 1);
  EXPECT_STREQ(ULOG_GetLastErrorMessage(), "The log is not set up");
  ASSERT_EQ(ULOG_Init(2, 2, nullptr, 0, 0), 0);
  const ULog* logger = ULog::gLogger;
  EXPECT_FALSE(logger->mDebugEnabled);

  struct Case {
    int type, level;
    const char* path;
    int size, count;
    std::string message;
  };
  for (const Case& item : {
           Case{0, 2, path.c_str(), 1, 1, "Invalid log type 0, it must be 1 (file) or 2 (standard error)"},
           Case{3, 2, path.c_str(), 1, 1, "Invalid log type 3, it must be 1 (file) or 2 (standard error)"},
           Case{1, -1, path.c_str(), 1, 1, "Invalid log level -1, it must be 0 to 5"},
           Case{2, 6, nullptr, 0, 0, "Invalid log level 6, it must be 0 to 5"},
           Case{1, 2, nullptr, 1, 1, "No path given for a log file"},
           Case{1, 2, "", 1, 1, "No path given for a log file"},
           Case{1, 2, path.c_str(), 0, 1,
                "Invalid limits of the log file " + path + ": size 0 MiB, count 1; both must be at least 1"},
           Case{1, 2, path.c_str(), 1, -5,
                "Invalid limits of the log file " + path + ": size 1 MiB, count -5; both must be at least 1"},
           Case{1, 2, folder.c_str(), 1, 1, "Failed opening file " + folder + " for writing: Is a directory"},
       }) {
    EXPECT_NE(ULOG_Init(item.type, item.level, item.path, item.size, item.count), 0);
    EXPECT_EQ(ULOG_GetLastErrorMessage(), item.message);
    if (item.type == 1 && item.level == 2) {
      EXPECT_NE(ULOG_AuditInit(item.path, item.size, item.count), 0);
      EXPECT_EQ(std::string(ULOG_GetLastErrorMessage()).substr(0, 20), item.message.substr(0, 20));
    }
  }
  EXPECT_EQ(ULog::gLogger, logger);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_NE(ULOG_LogMessage(6, "", "x"), 0);
  EXPECT_NE(ULOG_LogMessage(2, nullptr, "x"), 0);
  EXPECT_NE(ULOG_LogMessage(2, "", nullptr), 0);
  EXPECT_NE(ULOG_AuditLogMessage(2, "", "no audit log yet"), 0);
}

TEST(ULogTest, ALineHasTimeLevelProcessAndThread) {
  const TempDir dir;
  const std::string path = dir / "new/x.log";  // the missing folder is made
  ASSERT_EQ(ULOG_Init(1, 1, path.c_str(), 1, 1), 0) << ULOG_GetLastErrorMessage();
  EXPECT_TRUE(ULog::gLogger.load()->mDebugEnabled);
  EXPECT_EQ(ULog::gLogger.load()->mLevel, 1);
  ASSERT_EQ(ULOG_LogMessage(3, "prefix ", "100% {} text"), 0);
  ULOG_LogMessage(0, "", "below the level");
  const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} warning \[)" + std::to_string(::getpid()) +
                        ":" + std::to_string(::syscall(SYS_gettid)) + R"(\] prefix 100% \{\} text\n)");
  EXPECT_TRUE(std::regex_match(ReadFile(path), line)) << ReadFile(path);
}

TEST(ULogTest, StandardErrorGetsLinesAtOnce) {
  testing::internal::CaptureStderr();
  ASSERT_EQ(ULOG_Init(2, 3, nullptr, 0, 0), 0);
  ULOG_LogMessage(2, "", "hidden");
  ULOG_LogMessage(4, "", "shown");
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_NE(text.find("shown\n"), std::string::npos);
  EXPECT_EQ(text.find("hidden"), std::string::npos);
}

TEST(ULogTest, FilesRotateAndTheAuditLogStaysPrivate) {
  const TempDir dir;
  const mode_t old = ::umask(0);
  dir.Write("audit.log", "older line\n");
  ASSERT_EQ(Mode(dir / "audit.log"), 0666U);
  ASSERT_EQ(ULOG_Init(1, 2, (dir / "x.log").c_str(), 1, 2), 0);
  ASSERT_EQ(ULOG_AuditInit((dir / "audit.log").c_str(), 1, 2), 0) << ULOG_GetLastErrorMessage();
  const std::string text(64 * 1024, 't');
  for (int i = 0; i < 64; ++i) {
    ULOG_LogMessage(2, "", text.c_str());
    ULOG_AuditLogMessage(2, "", text.c_str());
  }
  ::umask(old);
  for (const char* name : {"x.log", "x.1.log", "x.2.log", "audit.log", "audit.1.log", "audit.2.log"}) {
    EXPECT_LE(std::filesystem::file_size(dir / name), 1U << 20U) << name;
    EXPECT_EQ(Mode(dir / name), name[0] == 'a' ? 0600U : 0666U) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(dir / "x.3.log"));
}

TEST(ULogTest, AnAuditLineIsOneLine) {
  const TempDir dir;
  ASSERT_EQ(ULOG_AuditInit((dir / "audit.log").c_str(), 1, 1), 0) << ULOG_GetLastErrorMessage();
  ASSERT_EQ(ULOG_AuditLogMessage(2, "", "[1][remove][a\r\n[2][forged][\x7f][SUCCESS]"), 0);
  const std::string text = ReadFile(dir / "audit.log");
  EXPECT_EQ(Lines(text), 1U);
  EXPECT_NE(text.find(R"([1][remove][a\x0d\x0a[2][forged][\x7f][SUCCESS])"), std::string::npos) << text;
}

TEST(ULogTest, NothingIsLostWhenTheProcessEnds) {
  const TempDir dir;
  const std::string path = dir / "x.log";
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kLines = 500;
  EXPECT_EQ(InChild([&] {
              ULOG_Init(1, 2, path.c_str(), 16, 1);
              std::vector<std::thread> threads;
              for (std::size_t t = 0; t < kThreads; ++t) {
                threads.emplace_back([] {
                  for (std::size_t i = 0; i < kLines; ++i) {
                    VYN_LOG_INFO("line " << i);
                  }
                });
              }
              for (auto& thread : threads) {
                thread.join();
              }
            }),
            0);
  EXPECT_EQ(Lines(ReadFile(path)), kThreads * kLines);
}

TEST(ULogTest, ThreadsLogWhileTheLoggerIsReplaced) {
  const TempDir dir;
  ASSERT_EQ(ULOG_Init(1, 2, (dir / "0.log").c_str(), 16, 1), 0);
  constexpr std::size_t kThreads = 3;
  constexpr int kReplacements = 30;
  std::atomic<bool> stop{false};
  std::atomic<std::size_t> written{0};
  std::vector<std::thread> threads;
  for (std::size_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&] {
      while (!stop) {
        VYN_LOG_WARN("line");
        ULOG_AuditLogMessage(2, "", "line");
        ++written;
      }
    });
  }
  for (int i = 1; i <= kReplacements; ++i) {
    EXPECT_EQ(ULOG_Init(1, 2, (dir / (std::to_string(i % 3) + ".log")).c_str(), 16, 1), 0);
    EXPECT_EQ(ULOG_AuditInit((dir / "audit.log").c_str(), 16, 1), 0);
  }
  while (written < kThreads * kReplacements) {
    std::this_thread::yield();
  }
  stop = true;
  for (auto& thread : threads) {
    thread.join();
  }
  std::size_t found = 0;
  for (int i = 0; i < 3; ++i) {
    found += Lines(ReadFile(dir / (std::to_string(i) + ".log")));
  }
  EXPECT_EQ(found, written);
}

TEST(ULogTest, AFullDiskCostsLinesOnly) {
  testing::internal::CaptureStderr();
  ASSERT_EQ(ULOG_Init(1, 2, "/dev/full", 1, 1), 0) << ULOG_GetLastErrorMessage();
  const std::string text(64 * 1024, 't');
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(ULOG_LogMessage(4, "", text.c_str()), 0);
  }
  EXPECT_NE(testing::internal::GetCapturedStderr().find("No space left on device"), std::string::npos);
}

// A rotation fails when no descriptor is left to open the new file with. What then stands in the sink must
// not be used.
TEST(ULogTest, AFailedRotationIsMadeGoodLater) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the undefined behaviour sanitizer needs descriptors of its own to check a virtual call";
#endif
  const TempDir dir;
  const std::string path = dir / "x.log";
  const std::string large(1 << 20, 't');
  EXPECT_EQ(InChild([&] {
              const bool opened = ULOG_Init(1, 2, path.c_str(), 1, 1) == 0;
              ULOG_LogMessage(2, "", "before");
              rlimit limit{};
              ::getrlimit(RLIMIT_NOFILE, &limit);
              const rlimit none{0, limit.rlim_max};
              ::setrlimit(RLIMIT_NOFILE, &none);
              ULOG_LogMessage(2, "", large.c_str());  // rotates
              ULOG_LogMessage(2, "", "short");
              ULOG_LogMessage(2, "", large.c_str());
              ::setrlimit(RLIMIT_NOFILE, &limit);
              for (int i = 0; i < 300 && ReadFile(path).find("after") == std::string::npos; ++i) {
                ::usleep(10000);
                ULOG_LogMessage(2, "", "after");
              }
              if (!opened) {
                std::_Exit(1);
              }
            }),
            0);
  EXPECT_NE(ReadFile(path).find("] after\n"), std::string::npos);
  EXPECT_NE(ReadFile(dir / "x.1.log").find("] before\n"), std::string::npos);
}

}  // namespace
}  // namespace vyn::utilities::log
