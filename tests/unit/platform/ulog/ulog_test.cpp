#include "platform/ulog/ulog.h"

#include "common/log/logging.h"
#include "support/process/in_child.h"
#include "support/temp_dir.h"
#include "support/test.h"

#include <spdlog/spdlog.h>

namespace vyn::utilities::log {
namespace {

using test::InChild;
using test::ReadFile;
using testing::HasSubstr;

class ULogTest : public testing::Test {
 protected:
  std::string In(const std::string& name) const { return mDir / name; }
  std::ptrdiff_t Lines(const std::string& name) const {
    const std::string text = ReadFile(In(name));
    return std::count(text.begin(), text.end(), '\n');
  }

  const test::TempDir mDir;
};

TEST_F(ULogTest, ALogLineHasTimeLevelProcessAndThread) {
  const std::string path = In("new/x.log");  // the missing folder is made
  ASSERT_EQ(ULOG_Init(1, 1, path.c_str(), 1, 1), 0) << ULOG_GetLastErrorMessage();
  EXPECT_TRUE(ULog::gLogger.load()->mDebugEnabled && ULog::gLogger.load()->mLevel == 1);
  ASSERT_EQ(ULOG_LogMessage(3, "prefix ", "100% {} text"), 0);
  ULOG_LogMessage(0, "", "below the level");
  const std::regex line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} warning \[)" + std::to_string(::getpid()) +
                        ":" + std::to_string(::syscall(SYS_gettid)) + R"(\] prefix 100% \{\} text\n)");
  EXPECT_TRUE(std::regex_match(ReadFile(path), line)) << ReadFile(path);
}

TEST_F(ULogTest, LogFilesRotateAndTheAuditFileIsPrivateWithOneLinePerEntry) {
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

  ASSERT_EQ(ULOG_AuditInit(In("forged.log").c_str(), 1, 1), 0);
  ASSERT_EQ(ULOG_AuditLogMessage(2, "", "[1][remove][a\r\n[2][forged][\x7f\x1f~]"), 0);
  EXPECT_EQ(Lines("forged.log"), 1);
  EXPECT_THAT(ReadFile(In("forged.log")), HasSubstr(R"([1][remove][a\x0d\x0a[2][forged][\x7f\x1f~])"));
}

TEST_F(ULogTest, NoLineIsLostWhenTheLoggerIsReplacedOrTheProcessEnds) {
  InChild([this] {
    ULOG_Init(1, 2, In("0.log").c_str(), 16, 1);
    std::vector<std::jthread> threads(3);
    for (std::jthread& thread : threads) {
      thread = std::jthread([] {
        for (int i = 0; i < 1000; ++i) {
          VYN_LOG_INFO("line " << i);
          ULOG_AuditLogMessage(2, "", "line");
        }
      });
    }
    for (int i = 1; i <= 30; ++i) {
      ULOG_Init(1, 2, In(std::to_string(i % 3) + ".log").c_str(), 16, 1);
      ULOG_AuditInit(In("audit.log").c_str(), 16, 1);
    }
  });
  EXPECT_EQ(Lines("0.log") + Lines("1.log") + Lines("2.log"), 3000);
}

// A rotation fails when no descriptor is left to open the new file with. What then stands in the sink must
// not be used.
TEST_F(ULogTest, TheLoggerRetriesAFailedRotation) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "the undefined behaviour sanitizer needs descriptors of its own to check a virtual call";
#endif
  InChild([this] {
    ULOG_Init(1, 2, In("x.log").c_str(), 1, 1);
    rlimit limit{};
    ::getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit none{0, limit.rlim_max};
    const std::string large(1 << 20, 't');
    for (const char* text : {"before", large.c_str(), "short", large.c_str()}) {  // the second rotates
      ULOG_LogMessage(2, "", text);
      ::setrlimit(RLIMIT_NOFILE, &none);
    }
    ::setrlimit(RLIMIT_NOFILE, &limit);
    for (int i = 0; i < 300 && ReadFile(In("x.log")).find("after") == std::string::npos; ++i) {
      ::usleep(10000);
      ULOG_LogMessage(2, "", "after");
    }
  });
  EXPECT_THAT(ReadFile(In("x.log")), HasSubstr("] after\n"));
  EXPECT_THAT(ReadFile(In("x.1.log")), HasSubstr("] before\n"));
}

TEST_F(ULogTest, AForkedChildLogsEvenWhenAThreadOfItsParentWasLogging) {
  InChild([] {
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0 || ::dup2(ends[1], STDERR_FILENO) < 0) {
      std::_Exit(2);
    }
    ULOG_Init(2, 2, nullptr, 0, 0);
    const std::string moreThanThePipeHolds(1 << 20, 't');
    const std::jthread writer([&] { ULOG_LogMessage(2, "", moreThanThePipeHolds.c_str()); });
    char byte = 0;
    const bool begun = ::read(ends[0], &byte, 1) == 1;
    InChild([&] {
      ::alarm(60);
      ::dup2(::open("/dev/null", O_WRONLY), STDERR_FILENO);
      std::_Exit(begun && ULOG_LogMessage(2, "", "line") == 0 ? 0 : 3);
    });
    std::_Exit(testing::Test::HasFailure() ? 1 : 0);
  });
}

}  // namespace
}  // namespace vyn::utilities::log
