// Log lines and their gates, the checks that write them, the record of a thread's last failure, log files.

#include "common/log/log.h"

#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/util/system.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "vyn/broadcast.h"

namespace {

thread_local std::size_t gAllocations = 0;

void* Allocate(std::size_t size) {
  ++gAllocations;
  return std::malloc(size);
}

}  // namespace

// Every allocation of this program is counted. Kept whole, or the compiler takes the pair for mismatched.
[[gnu::noinline]] void* operator new(std::size_t size) {
  void* memory = Allocate(size);
  return memory != nullptr ? memory : throw std::bad_alloc();
}
[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return Allocate(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept { std::free(memory); }
[[gnu::noinline]] void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

namespace vyn::common {
namespace {

using testing::HasSubstr;

int gEvaluated = 0;

std::string Evaluate() {
  ++gEvaluated;
  return "text";
}

void WriteAllForms() {
  VYN_LOG_DEBUG(Evaluate());
  VYN_LOG_INFO(Evaluate());
  VYN_LOG_WARN(Evaluate());
  VYN_LOG_ERROR(Evaluate());
}

TEST(LoggingTest, AFormIsEvaluatedFromItsThresholdOnAndAClosedOneAllocatesNothing) {
  const std::string identifier(32, 'a');
  std::size_t before = gAllocations;
  WriteAllForms();  // there is no logger yet
  EXPECT_EQ(gAllocations, before);
  for (int threshold = 0; threshold <= 5; ++threshold) {
    const test::CapturedLog log(threshold);
    gEvaluated = 0;
    before = gAllocations;
    WriteAllForms();
    if (threshold == 5) {
      EXPECT_EQ(CheckInputWithCharPtr(identifier, false, false), 0U);
      EXPECT_EQ(CheckInputWithCharPtr(identifier.c_str(), false, true), 0U);
      EXPECT_EQ(gAllocations, before);
    }
    const int first = std::max(threshold, 1);
    EXPECT_EQ(gEvaluated, 5 - first);
    for (int level = 1; level <= 4; ++level) {
      EXPECT_EQ(log.Texts(level).size(), level >= first ? 1U : 0U) << threshold << " " << level;
    }
  }
  const test::CapturedLog log;
  VYN_LOG_WARN("braces {} and " << 42);
  const int line = __LINE__ - 1;
  EXPECT_EQ(log.Lines().at(0).whole, "log_test.cpp:" + std::to_string(line) + "] braces {} and 42");
}

unsigned int Checked(unsigned int status) {
  VYN_CHECK_CALL(static_cast<unsigned int>(status));
  return 100;
}
unsigned int Pointed(const int* pointer) {
  VYN_CHECK_POINTER(pointer);
  VYN_CHECK_POINTER_NAMED(pointer, "pointer");
  return 100;
}
unsigned int Asserted(int value) {
  VYN_ASSERT(value > 0, 2000013);
  return 100;
}

TEST(LoggingTest, ChecksEndTheFunctionWithTheirStatusAndOneLine) {
  const test::CapturedLog log;
  const int some = 0;
  for (const auto& [status, expected] :
       std::vector<std::pair<unsigned int, unsigned int>>{{Pointed(&some), 100},
                                                          {Asserted(1), 100},
                                                          {Checked(0), 100},
                                                          {Checked(2080000), 100},  // even: a success
                                                          {Pointed(nullptr), 2000057},
                                                          {Checked(2020021), 2020021},
                                                          {Asserted(0), 2000013}}) {
    EXPECT_EQ(status, expected);
  }
  EXPECT_EQ(log.Texts(4).size(), 3U);
  EXPECT_EQ(RetrieveErrorInfo(), nullptr);
  EXPECT_EQ(VYN_FAIL(2120013, "value " << 7), 2120013U);
  EXPECT_STREQ(LastErrorText(), "value 7");
  EXPECT_EQ(log.Texts(4).back(), "value 7");
}

TEST(ErrorInfoTest, AFailureReplacesTheRecordAndIsLogged) {
  const test::CapturedLog log;
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_STREQ(LastErrorText(), "");
  const std::string text(100, 'x');  // long enough to live on the heap
  EXPECT_EQ(VynSetErrorInfo(2120013, text, -7), 2120013U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, -7);
  EXPECT_EQ(VynSetErrorInfo(3, RetrieveErrorInfo()->mMessage), 3U) << "the record's own message";
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 3U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, 0);
  EXPECT_EQ(BroadcastGetLastErrorMessage(), text);
  EXPECT_THAT(log.Texts(4), testing::ElementsAre(text, text));

  EXPECT_EQ(VynSetErrorInfo(RetrieveErrorInfo()), 0U) << "the record itself";
  EXPECT_EQ(BroadcastGetLastErrorMessage(), text);
  const ErrorInfo other(2000013, "copied", 9);
  EXPECT_EQ(VynSetErrorInfo(&other), 0U);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 2000013U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, 0);
  EXPECT_EQ(VynSetErrorInfo(nullptr), 0U);
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_EQ(log.Lines().size(), 2U) << "copies are not logged";
}

// The leak checker of the address sanitizer sees whether the records of ended threads are freed.
TEST(ErrorInfoTest, EveryThreadHasItsOwnRecord) {
  VynSetErrorInfo(1, "of the main thread");
  std::atomic<int> ready{0};
  // Made before the thread's first record, so it goes after it: its failure must not be one that nobody frees.
  struct Late {
    ~Late() { VynSetErrorInfo(1, std::string(64, 'l')); }
    bool used = false;
  };
  const auto fail = [&](const std::string& text) {
    thread_local Late late;
    late.used = true;
    EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
    VynSetErrorInfo(1, text);
    ++ready;
    while (ready < 2) {
      std::this_thread::yield();
    }
    EXPECT_EQ(std::string(BroadcastGetLastErrorMessage()), text);
  };
  std::thread first(fail, std::string(64, 'a'));
  std::thread second(fail, std::string(64, 'b'));
  first.join();
  second.join();
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "of the main thread");
}

class LogFilesTest : public testing::Test {
 protected:
  const test::TempDir mDir;
  const std::string mLogFile = mDir / ("vynd." + VynGetHostname() + ".log");
  const std::string mAuditFile = mDir / ("vynd.audit." + VynGetHostname() + ".log");
};

TEST_F(LogFilesTest, LevelNamesAreNumbers) {
  testing::internal::CaptureStdout();
  for (unsigned int level = 0; level < 6; ++level) {
    EXPECT_EQ(Log::StringToLogLevel(Log::LogLevelToString(level)), level);
    EXPECT_EQ(Log::mDebugEnabled, level >= 1) << "stays set";
  }
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  for (const std::string& name : {std::string("debug"), std::string(), Log::LogLevelToString(6)}) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(Log::StringToLogLevel(name), Log::StringToLogLevel("INFO"));
    EXPECT_NE(testing::internal::GetCapturedStdout(), "");
  }
}

TEST_F(LogFilesTest, AnAuditLineIsOneLineOfAtMost4095Characters) {
  AuditGlog("early", "is", "not", "written");
  ASSERT_EQ(Log::Initialize(1, 3, mDir.Path(), 1, 1), 0U) << ULOG_GetLastErrorMessage();
  EXPECT_EQ(Log::gLevel, 3U);
  VYN_LOG_INFO("below the level");
  VYN_LOG_ERROR("shown");
  struct stat status {};
  ASSERT_EQ(::stat(mAuditFile.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0600U);
  AuditGlog("s", nullptr, "t", "r");
  EXPECT_EQ(test::ReadFile(mAuditFile), "");
  for (const auto& [length, written] : std::vector<std::pair<std::size_t, std::size_t>>{
           {1, 12}, {4084, 4095}, {4085, 4095}, {4092, 4095}, {4093, 0}}) {
    std::filesystem::resize_file(mAuditFile, 0);
    AuditGlog("s", "o", std::string(length, 't').c_str(), "r");
    const std::string audit = test::ReadFile(mAuditFile);
    const auto begin = audit.find("[s][o][t");
    EXPECT_EQ(begin == std::string::npos ? 0 : audit.size() - begin - 1, written) << length;
    EXPECT_EQ(std::count(audit.begin(), audit.end(), '\n'), written == 0 ? 0 : 1);
  }
  const std::string log = test::ReadFile(mLogFile);
  EXPECT_THAT(log, HasSubstr("shown\n"));
  EXPECT_THAT(log, testing::Not(HasSubstr("below")));
}

TEST_F(LogFilesTest, AFailedAuditLogLeavesTheMainLogInUse) {
  EXPECT_EQ(Log::Initialize(3, 2, mDir.Path(), 1, 1), 1U);
  EXPECT_EQ(Log::Initialize(1, 4000000000U, mDir.Path(), 1, 1), 1U);
  EXPECT_FALSE(std::filesystem::exists(mAuditFile)) << "not tried without a main log";
  std::filesystem::create_directory(mAuditFile);
  EXPECT_EQ(Log::Initialize(1, 2, mDir.Path(), 1, 1), 1U);
  VYN_LOG_ERROR("shown");
  EXPECT_THAT(test::ReadFile(mLogFile), HasSubstr("shown\n"));
}

}  // namespace
}  // namespace vyn::common
