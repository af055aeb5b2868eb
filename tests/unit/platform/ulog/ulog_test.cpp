#include "platform/ulog/ulog.h"

#include "common/log/logging.h"
#include "support/temp_dir.h"
#include "support/test.h"

#include <spdlog/spdlog.h>

namespace vyn::utilities::log {
namespace {

using test::ReadFile;

std::size_t Lines(const std::string& path) {
  const std::string text = ReadFile(path);
  return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n'));
}

class ULogTest : public testing::Test {
 protected:
  std::string In(const std::string& name) const { return mDir / name; }

  const test::TempDir mDir;
};

TEST_F(ULogTest, RefusesWrongArgumentsAndKeepsTheOldLogger) {
  ASSERT_NE(ULOG_LogMessage(4, "", "early"), 0);
  EXPECT_STRNE(ULOG_GetLastErrorMessage(), "");
  ASSERT_EQ(ULOG_Init(2, 2, nullptr, 0, 0), 0);
  const ULog* logger = ULog::gLogger;
  const std::string path = In("x.log");
  struct Case {
    int type, level;
    const char* path;
    int size, count;
    std::string part;  ///< of the message
  };
  for (const Case& c : {Case{0, 2, path.c_str(), 1, 1, "type 0"}, Case{3, 2, path.c_str(), 1, 1, "type 3"},
                        Case{1, -1, path.c_str(), 1, 1, "level -1"}, Case{2, 6, nullptr, 0, 0, "level 6"},
                        Case{1, 2, nullptr, 1, 1, "path"}, Case{1, 2, "", 1, 1, "path"},
                        Case{1, 2, path.c_str(), 0, 1, "size 0"}, Case{1, 2, path.c_str(), 1, -5, "count -5"},
                        Case{1, 2, mDir.Path().c_str(), 1, 1, "Is a directory"}}) {
    EXPECT_NE(ULOG_Init(c.type, c.level, c.path, c.size, c.count), 0);
    EXPECT_NE(std::string(ULOG_GetLastErrorMessage()).find(c.part), std::string::npos) << c.part;
    if (c.type == 1 && c.level == 2) {
      EXPECT_NE(ULOG_AuditInit(c.path, c.size, c.count), 0) << c.part;
    }
  }
  EXPECT_EQ(ULog::gLogger, logger);
  EXPECT_FALSE(std::filesystem::exists(path));
  EXPECT_NE(ULOG_LogMessage(6, "", "x"), 0);
  EXPECT_NE(ULOG_LogMessage(2, nullptr, "x"), 0);
  EXPECT_NE(ULOG_LogMessage(2, "", nullptr), 0);
  EXPECT_NE(ULOG_AuditLogMessage(2, "", "no audit log yet"), 0);
}

TEST_F(ULogTest, ALineOfTheLevelHasTimeLevelProcessAndThread) {
  const std::string path = In("new/x.log");  // the missing folder is made
  ASSERT_EQ(ULOG_Init(1, 1, path.c_str(), 1, 1), 0) << ULOG_GetLastErrorMessage();
  EXPECT_TRUE(ULog::gLogger.load()->mDebugEnabled && ULog::gLogger.load()->mLevel == 1);
  ASSERT_EQ(ULOG_LogMessage(3, "prefix ", "100% {} text"), 0);
  ULOG_LogMessage(0, "", "below the level");
  const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} warning \[)" + std::to_string(::getpid()) +
                        ":" + std::to_string(::syscall(SYS_gettid)) + R"(\] prefix 100% \{\} text\n)");
  EXPECT_TRUE(std::regex_match(ReadFile(path), line)) << ReadFile(path);

  testing::internal::CaptureStderr();
  ASSERT_EQ(ULOG_Init(2, 3, nullptr, 0, 0), 0);
  EXPECT_FALSE(ULog::gLogger.load()->mDebugEnabled);
  ULOG_LogMessage(2, "", "hidden");
  ULOG_LogMessage(4, "", "shown");
  const std::string text = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(text.find("shown\n") != std::string::npos && text.find("hidden") == std::string::npos) << text;
}

TEST_F(ULogTest, FilesRotateAndTheAuditLogStaysPrivate) {
  const mode_t old = ::umask(0);
  mDir.Write("audit.log", "older line\n");
  ASSERT_EQ(ULOG_Init(1, 2, In("x.log").c_str(), 1, 2), 0);
  ASSERT_EQ(ULOG_AuditInit(In("audit.log").c_str(), 1, 2), 0) << ULOG_GetLastErrorMessage();
  const std::string text(64 * 1024, 't');
  for (int i = 0; i < 64; ++i) {
    ULOG_LogMessage(2, "", text.c_str());
    ULOG_AuditLogMessage(2, "", text.c_str());
  }
  ::umask(old);
  for (const char* name : {"x.log", "x.1.log", "x.2.log", "audit.log", "audit.1.log", "audit.2.log"}) {
    struct stat status {};
    EXPECT_EQ(::stat(In(name).c_str(), &status), 0) << name;
    EXPECT_LE(status.st_size, 1 << 20) << name;
    EXPECT_EQ(status.st_mode & 07777, name[0] == 'a' ? 0600U : 0666U) << name;
  }
  EXPECT_FALSE(std::filesystem::exists(In("x.3.log")));
}

TEST_F(ULogTest, AnAuditLineIsOneLine) {
  ASSERT_EQ(ULOG_AuditInit(In("audit.log").c_str(), 1, 1), 0) << ULOG_GetLastErrorMessage();
  ASSERT_EQ(ULOG_AuditLogMessage(2, "", "[1][remove][a\r\n[2][forged][\x7f\x1f~][SUCCESS]"), 0);
  const std::string text = ReadFile(In("audit.log"));
  EXPECT_EQ(Lines(In("audit.log")), 1U);
  EXPECT_NE(text.find(R"([1][remove][a\x0d\x0a[2][forged][\x7f\x1f~][SUCCESS])"), std::string::npos) << text;
}

TEST_F(ULogTest, NothingIsLostWhileTheLoggerIsReplacedAndWhenTheProcessEnds) {
  constexpr std::size_t kThreads = 3;
  constexpr std::size_t kLines = 1000;
  const pid_t child = ::fork();
  if (child == 0) {
    ULOG_Init(1, 2, In("0.log").c_str(), 16, 1);
    std::vector<std::thread> threads;
    for (std::size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([] {
        for (std::size_t i = 0; i < kLines; ++i) {
          VYN_LOG_INFO("line " << i);
          ULOG_AuditLogMessage(2, "", "line");
        }
      });
    }
    for (int i = 1; i <= 30; ++i) {
      ULOG_Init(1, 2, In(std::to_string(i % 3) + ".log").c_str(), 16, 1);
      ULOG_AuditInit(In("audit.log").c_str(), 16, 1);
    }
    for (auto& thread : threads) {
      thread.join();
    }
    std::exit(0);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Lines(In("0.log")) + Lines(In("1.log")) + Lines(In("2.log")), kThreads * kLines);
}

TEST_F(ULogTest, AFullDiskCostsLinesOnly) {
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
TEST_F(ULogTest, AFailedRotationIsMadeGoodLater) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the undefined behaviour sanitizer needs descriptors of its own to check a virtual call";
#endif
  const std::string path = In("x.log");
  const std::string large(1 << 20, 't');
  const pid_t child = ::fork();
  if (child == 0) {
    const bool opened = ULOG_Init(1, 2, path.c_str(), 1, 1) == 0;
    ULOG_LogMessage(2, "", "before");
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &none);
    for (const std::string& text : {large, std::string("short"), large}) {  // the first rotates
      ULOG_LogMessage(2, "", text.c_str());
    }
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 300 && ReadFile(path).find("after") == std::string::npos; ++i) {
      ::usleep(10000);
      ULOG_LogMessage(2, "", "after");
    }
    std::exit(opened ? 0 : 1);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_NE(ReadFile(path).find("] after\n"), std::string::npos);
  EXPECT_NE(ReadFile(In("x.1.log")).find("] before\n"), std::string::npos);
}

}  // namespace
}  // namespace vyn::utilities::log
