#include "common/log/logging.h"

#include "common/util/input_check.h"
#include "support/captured_log.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <new>
#include <string>
#include <vector>

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

using utilities::log::ULog;

int gEvaluated = 0;

std::string Evaluate() {
  ++gEvaluated;
  return "text";
}

void WriteAllForms() {
  VYN_LOG_ERROR("e" << Evaluate());
  VYN_LOG_WARN("w" << Evaluate());
  VYN_LOG_INFO("i" << Evaluate());
  VYN_LOG_DEBUG("d" << Evaluate());
}

TEST(LoggingTest, GatesFollowTheThresholdAndTheDebugFlag) {
  struct Case {
    int threshold;
    std::vector<std::string> expected;
  };
  for (const Case& item :
       {Case{0, {"etext", "wtext", "itext", "dtext"}}, Case{1, {"etext", "wtext", "itext", "dtext"}},
        Case{2, {"etext", "wtext", "itext"}}, Case{3, {"etext", "wtext"}}, Case{4, {"etext"}}, Case{5, {}}}) {
    test::CapturedLog log(item.threshold);
    gEvaluated = 0;
    WriteAllForms();
    std::vector<std::string> texts;
    for (const auto& line : log.Lines()) {
      texts.push_back(line.text);
    }
    EXPECT_EQ(texts, item.expected) << "threshold " << item.threshold;
    EXPECT_EQ(gEvaluated, static_cast<int>(item.expected.size()));
  }
}

TEST(LoggingTest, ALineNamesItsPlaceAndKeepsItsLevel) {
  test::CapturedLog log;
  VYN_LOG_WARN("braces {} and " << 42);
  const int line = __LINE__ - 1;
  ASSERT_EQ(log.Lines().size(), 1U);
  EXPECT_EQ(log.Lines()[0].whole, "logging_test.cpp:" + std::to_string(line) + "] braces {} and 42");
  EXPECT_EQ(log.Lines()[0].level, 3);
}

TEST(LoggingTest, ClosedGatesAndPassingChecksAllocateNothing) {
  ASSERT_EQ(ULog::gLogger.load(), nullptr);
  const std::string identifier(32, 'a');
  std::size_t before = gAllocations;
  WriteAllForms();
  EXPECT_EQ(gAllocations, before);
  test::CapturedLog log(5);
  before = gAllocations;
  WriteAllForms();
  EXPECT_EQ(CheckInputWithCharPtr(identifier, false, false), 0U);
  EXPECT_EQ(CheckInputWithCharPtr(identifier.c_str(), false, true), 0U);
  EXPECT_EQ(gAllocations, before);
}

unsigned int Checked(unsigned int status) {
  VYN_CHECK_CALL(static_cast<unsigned int>(status));
  return 100;
}
unsigned int Pointed(const int* pointer) {
  VYN_CHECK_POINTER(pointer);
  return 100;
}
unsigned int Named(const int* pointer) {
  VYN_CHECK_POINTER_NAMED(pointer, "request");
  return 100;
}
unsigned int Asserted(int value) {
  VYN_ASSERT(value > 0, 2000013);
  return 100;
}
unsigned int Recorded(int value) { return VYN_FAIL(2120013, "value " << value); }

TEST(LoggingTest, ChecksEndTheFunctionWithTheirStatusAndLine) {
  test::CapturedLog log;
  const int some = 0;
  EXPECT_EQ(Pointed(&some), 100U);
  EXPECT_EQ(Named(&some), 100U);
  EXPECT_EQ(Asserted(1), 100U);
  EXPECT_EQ(Checked(0), 100U);
  EXPECT_EQ(Checked(2080000), 100U);  // even, so a success
  EXPECT_TRUE(log.Lines().empty());

  EXPECT_EQ(Pointed(nullptr), 2000057U);
  EXPECT_EQ(Named(nullptr), 2000057U);
  EXPECT_EQ(Checked(2020021), 2020021U);
  EXPECT_EQ(Asserted(0), 2000013U);
  EXPECT_EQ(RetrieveErrorInfo(), nullptr);
  EXPECT_EQ(Recorded(7), 2120013U);
  EXPECT_STREQ(LastErrorText(), "value 7");
  EXPECT_EQ(log.Texts(4),
            (std::vector<std::string>{"Unexpected nullptr value pointer", "Unexpected nullptr value request",
                                      "Failed to execute static_cast<unsigned int>(status)",
                                      "Failed assert as value > 0", "value 7"}));
}

}  // namespace
}  // namespace vyn::common
