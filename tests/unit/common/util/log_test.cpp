#include "common/log/log.h"

#include "common/log/logging.h"
#include "common/log/time_counter.h"
#include "common/util/system.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace vyn::common {
namespace {

TEST(LogTest, LevelNames) {
  const std::vector<std::string> names{"TRACE", "DEBUG", "INFO", "WARN", "ERROR", "CRITICAL"};
  testing::internal::CaptureStdout();
  for (unsigned int level = 0; level < names.size(); ++level) {
    EXPECT_EQ(Log::StringToLogLevel(names[level]), level);
    EXPECT_EQ(Log::LogLevelToString(level), names[level]);
    EXPECT_EQ(Log::mDebugEnabled, level >= 1);  // stays set
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(Log::LogLevelToString(6), "Invalid");
  for (const char* name : {"debug", "", "INFO "}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(Log::StringToLogLevel(name), 2U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "The log level is incorrect.\n");
  }
}

class LogFilesTest : public testing::Test {
 protected:
  test::TempDir mDir;
  const std::string mLogFile = mDir / ("vynd." + VynGetHostname() + ".log");
  const std::string mAuditFile = mDir / ("vynd.audit." + VynGetHostname() + ".log");
};

TEST_F(LogFilesTest, WritesBothFiles) {
  AuditGlog("early", "is", "not", "written");
  ASSERT_EQ(Log::Initialize(1, 3, mDir.Path(), 1, 1), 0U) << ULOG_GetLastErrorMessage();
  EXPECT_EQ(Log::gLevel, 3U);
  VYN_LOG_INFO("below the level");
  VYN_LOG_ERROR("shown");
  AuditGlog("17", "connect", "zookeeper", "SUCCESS");
  AuditGlog("17", nullptr, "zookeeper", "SUCCESS");
  const std::string log = test::ReadFile(mLogFile);
  EXPECT_NE(log.find("shown\n"), std::string::npos);
  EXPECT_EQ(log.find("below"), std::string::npos);
  const std::string audit = test::ReadFile(mAuditFile);
  EXPECT_EQ(std::count(audit.begin(), audit.end(), '\n'), 1);
  EXPECT_NE(audit.find("] [17][connect][zookeeper][SUCCESS]\n"), std::string::npos) << audit;
  struct stat status {};
  ASSERT_EQ(::stat(mAuditFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
}

TEST_F(LogFilesTest, AnAuditLineIsCutAt4095Characters) {
  ASSERT_EQ(Log::Initialize(1, 2, mDir.Path(), 1, 1), 0U);
  struct Case {
    std::size_t target;  // characters, beside the 3 of the other texts
    std::size_t written;
  };
  for (const Case& item : {Case{4084, 4095}, Case{4085, 4095}, Case{4092, 4095}, Case{4093, 0}}) {
    const std::string target(item.target, 't');
    std::filesystem::resize_file(mAuditFile, 0);
    AuditGlog("s", "o", target.c_str(), "r");
    const std::string audit = test::ReadFile(mAuditFile);
    const auto begin = audit.find("[s][o][t");
    EXPECT_EQ(begin == std::string::npos ? 0 : audit.size() - begin - 1, item.written) << item.target;
  }
  EXPECT_NE(test::ReadFile(mLogFile).find("audit strlen exceed LOG_BUF_LEN.\n"), std::string::npos);
}

TEST_F(LogFilesTest, AFailedAuditLogLeavesTheMainLogInUse) {
  std::filesystem::create_directory(mAuditFile);
  EXPECT_EQ(Log::Initialize(1, 2, mDir.Path(), 1, 1), 1U);
  EXPECT_NE(test::ReadFile(mLogFile).find("] Failed to create audit log with ret 1\n"), std::string::npos);
}

TEST_F(LogFilesTest, AFailedMainLogTriesNoAuditLog) {
  EXPECT_EQ(Log::Initialize(3, 2, mDir.Path(), 1, 1), 1U);
  EXPECT_EQ(Log::Initialize(1, 4000000000U, mDir.Path(), 1, 1), 1U);
  EXPECT_FALSE(std::filesystem::exists(mAuditFile));
}

TEST(TimeCounterTest, TakesThreeLevels) {
  test::CapturedLog log;
  TimeCounter::SetTimeCountLevel(2);
  EXPECT_EQ(TimeCounter::timeCounterLevel, 2);
  TimeCounter::SetTimeCountLevel(3);
  EXPECT_EQ(TimeCounter::timeCounterLevel, 2);
  EXPECT_TRUE(log.Has(2, "Set profile level to <2>."));
  EXPECT_TRUE(log.Has(3, "Failed to set profile level to <3>, keep the original level <2>."));
}

}  // namespace
}  // namespace vyn::common
