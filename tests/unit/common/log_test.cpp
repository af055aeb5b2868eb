// The record of a thread's last failure, log files.

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

TEST(LogFilesTest, AnAuditLineIsOneLineOfAtMost4095Characters) {
  const test::TempDir dir;
  const std::string auditFile = dir / ("vynd.audit." + VynGetHostname() + ".log");
  AuditGlog("early", "is", "not", "written");
  EXPECT_EQ(Log::StringToLogLevel("WARN"), 3U);
  EXPECT_EQ(Log::StringToLogLevel(Log::LogLevelToString(6)), 2U) << "INFO for what is no level";
  ASSERT_EQ(Log::Initialize(1, 3, dir.Path(), 1, 1), 0U) << ULOG_GetLastErrorMessage();
  VYN_LOG_INFO("below the level");
  VYN_LOG_ERROR("shown");
  const std::string log = test::ReadFile(dir / ("vynd." + VynGetHostname() + ".log"));
  EXPECT_THAT(log, testing::AllOf(HasSubstr("shown\n"), testing::Not(HasSubstr("below"))));
  EXPECT_EQ(std::filesystem::status(auditFile).permissions(), std::filesystem::perms(0600));
  AuditGlog("s", nullptr, "t", "r");
  EXPECT_EQ(test::ReadFile(auditFile), "");
  for (const auto& [length, written] :
       std::map<std::size_t, std::size_t>{{1, 12}, {4084, 4095}, {4092, 4095}, {4093, 0}}) {
    std::filesystem::resize_file(auditFile, 0);
    AuditGlog("s", "o", std::string(length, 't').c_str(), "r");
    const std::string audit = test::ReadFile(auditFile);
    const auto begin = audit.find("[s][o][t");
    EXPECT_EQ(begin == std::string::npos ? 0 : audit.size() - begin - 1, written) << length;
    EXPECT_EQ(std::count(audit.begin(), audit.end(), '\n'), written == 0 ? 0 : 1);
  }
}

}  // namespace
}  // namespace vyn::common
