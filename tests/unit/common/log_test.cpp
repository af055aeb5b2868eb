// Log lines and their gates, the checks that write them, the record of a thread's last failure, log files.

#include "common/log/log.h"

#include "common/log/logging.h"
#include "common/util/system.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "vyn/broadcast.h"

namespace vyn::common {
namespace {

using testing::HasSubstr;

TEST(LoggingTest, AFormIsEvaluatedFromItsThresholdOn) {
  int evaluated = 0;
  const auto writeAllForms = [&] {
    VYN_LOG_DEBUG("text " << ++evaluated);
    VYN_LOG_INFO("text " << ++evaluated);
    VYN_LOG_WARN("text " << ++evaluated);
    VYN_LOG_ERROR("text " << ++evaluated);
  };
  writeAllForms();
  EXPECT_EQ(evaluated, 0) << "there is no logger yet";
  for (int threshold = 1; threshold <= 5; ++threshold) {
    const test::CapturedLog log(threshold);
    evaluated = 0;
    writeAllForms();
    EXPECT_EQ(evaluated, 5 - threshold);
    EXPECT_EQ(log.Texts(1).size() + log.Texts(4).size(), threshold == 1 ? 2U : threshold == 5 ? 0U : 1U);
  }
}

TEST(ErrorInfoTest, AFailureReplacesTheRecordAndIsLogged) {
  const test::CapturedLog log;
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  const std::string text(100, 'x');  // long enough to live on the heap
  EXPECT_EQ(VynSetErrorInfo(2120013, text, -7), 2120013U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, -7);
  EXPECT_EQ(VynSetErrorInfo(3, RetrieveErrorInfo()->mMessage), 3U) << "the record's own message";
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 3U);
  EXPECT_EQ(VynSetErrorInfo(RetrieveErrorInfo()), 0U) << "the record itself";
  EXPECT_EQ(BroadcastGetLastErrorMessage(), text);
  EXPECT_EQ(VynSetErrorInfo(nullptr), 0U);
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_THAT(log.Texts(4), testing::ElementsAre(text, text)) << "copies are not logged";
}

// The leak checker of the address sanitizer sees whether the record of an ended thread is freed.
TEST(ErrorInfoTest, EveryThreadHasItsOwnRecord) {
  VynSetErrorInfo(1, "of the main thread");
  std::thread([] {
    EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
    VynSetErrorInfo(1, std::string(64, 'a'));
  }).join();
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "of the main thread");
}

class LogFilesTest : public testing::Test {
 protected:
  const test::TempDir mDir;
  const std::string mLogFile = mDir / ("vynd." + VynGetHostname() + ".log");
  const std::string mAuditFile = mDir / ("vynd.audit." + VynGetHostname() + ".log");
};

TEST_F(LogFilesTest, AnAuditLineIsOneLineOfAtMost4095Characters) {
  AuditGlog("early", "is", "not", "written");
  EXPECT_EQ(Log::StringToLogLevel("WARN"), 3U);
  EXPECT_EQ(Log::StringToLogLevel(Log::LogLevelToString(6)), 2U) << "INFO for what is no level";
  ASSERT_EQ(Log::Initialize(1, 3, mDir.Path(), 1, 1), 0U) << ULOG_GetLastErrorMessage();
  VYN_LOG_INFO("below the level");
  VYN_LOG_ERROR("shown");
  const std::string log = test::ReadFile(mLogFile);
  EXPECT_THAT(log, testing::AllOf(HasSubstr("shown\n"), testing::Not(HasSubstr("below"))));
  EXPECT_EQ(std::filesystem::status(mAuditFile).permissions(), std::filesystem::perms(0600));
  AuditGlog("s", nullptr, "t", "r");
  EXPECT_EQ(test::ReadFile(mAuditFile), "");
  for (const auto& [length, written] :
       std::map<std::size_t, std::size_t>{{1, 12}, {4084, 4095}, {4092, 4095}, {4093, 0}}) {
    std::filesystem::resize_file(mAuditFile, 0);
    AuditGlog("s", "o", std::string(length, 't').c_str(), "r");
    const std::string audit = test::ReadFile(mAuditFile);
    const auto begin = audit.find("[s][o][t");
    EXPECT_EQ(begin == std::string::npos ? 0 : audit.size() - begin - 1, written) << length;
    EXPECT_EQ(std::count(audit.begin(), audit.end(), '\n'), written == 0 ? 0 : 1);
  }
}

TEST_F(LogFilesTest, AFailedAuditLogLeavesTheMainLogInUse) {
  EXPECT_EQ(Log::Initialize(3, 2, mDir.Path(), 1, 1), 1U);
  std::filesystem::create_directory(mAuditFile);
  EXPECT_EQ(Log::Initialize(1, 2, mDir.Path(), 1, 1), 1U);
  VYN_LOG_ERROR("shown");
  EXPECT_THAT(test::ReadFile(mLogFile), HasSubstr("shown\n"));
}

}  // namespace
}  // namespace vyn::common
