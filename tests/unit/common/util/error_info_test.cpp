#include "common/log/error_info.h"

#include "support/captured_log.h"
#include "vyn/broadcast.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace vyn::common {
namespace {

TEST(ErrorInfoTest, ReplacesTheRecordLogsAndReturnsTheCode) {
  test::CapturedLog log;
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_STREQ(LastErrorText(), "");

  EXPECT_EQ(VynSetErrorInfo(2120013, "first", -7), 2120013U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, -7);
  EXPECT_EQ(RetrieveErrorInfo()->RefCount(), 0);
  EXPECT_EQ(VynSetErrorInfo(2080001, "second"), 2080001U);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 2080001U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, 0);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "second");
  EXPECT_EQ(log.Texts(4), (std::vector<std::string>{"first", "second"}));

  log.Clear();
  const ErrorInfo other(2000013, "copied", 9);
  EXPECT_EQ(VynSetErrorInfo(&other), 0U);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 2000013U);
  EXPECT_EQ(RetrieveErrorInfo()->mDetail, 0);
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "copied");
  EXPECT_EQ(VynSetErrorInfo(nullptr), 0U);
  EXPECT_EQ(BroadcastGetLastErrorMessage(), nullptr);
  EXPECT_TRUE(log.Lines().empty());
}

TEST(ErrorInfoTest, TakesTheRecordsOwnMessageAndTheRecordItself) {
  test::CapturedLog log;
  const std::string text(100, 'x');  // long enough to live on the heap
  VynSetErrorInfo(1, text, 5);
  VynSetErrorInfo(3, RetrieveErrorInfo()->mMessage);
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 3U);
  EXPECT_EQ(RetrieveErrorInfo()->mMessage, text);
  EXPECT_EQ(log.Texts(4), (std::vector<std::string>{text, text}));
  VynSetErrorInfo(RetrieveErrorInfo());
  EXPECT_EQ(RetrieveErrorInfo()->mCode, 3U);
  EXPECT_EQ(RetrieveErrorInfo()->mMessage, text);
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
  auto fail = [&](const std::string& text) {
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

}  // namespace
}  // namespace vyn::common
