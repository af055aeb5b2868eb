#include "common/util/input_check.h"

#include "common/log/error_info.h"
#include "support/captured_log.h"
#include "vyn/broadcast.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

namespace vyn::common {
namespace {

const std::string kRefusal =
    "The length of input should be less than 1024, and it should only contain uppercase and lowercase "
    "letters, "
    "numbers, underscores and horizontal lines. input is : ";

TEST(InputCheckTest, EqualsTheRegularExpressions) {
  const std::regex withSeparators("([A-Za-z0-9_-]|[;]|[.]){1,1024}");
  const std::regex plain("([A-Za-z0-9_-]){1,1024}");
  auto compare = [&](const std::string& text) {
    EXPECT_EQ(InputRegularMatching(text, true) == 0, std::regex_match(text, withSeparators)) << text;
    EXPECT_EQ(InputRegularMatching(text) == 0, std::regex_match(text, plain)) << text;
    if (text.find('\0') == std::string::npos) {  // the byte that ends a C string
      EXPECT_EQ(InputRegularMatching(text.c_str(), true) == 0, std::regex_match(text, withSeparators))
          << text;
      EXPECT_EQ(InputRegularMatching(text.c_str(), false) == 0, std::regex_match(text, plain)) << text;
    }
  };
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    for (const std::string& text : {std::string(1, c), std::string("a") + c, c + std::string("a")}) {
      compare(text);
    }
  }
  for (const std::size_t length : {0U, 1U, 1024U, 1025U}) {
    compare(std::string(length, 'a'));
    compare(std::string(length, '.'));
  }
}

TEST(InputCheckTest, TextArgument) {
  struct Case {
    std::string input;
    bool allowEmpty;
    bool withSeparators;
    unsigned int status;
    std::string record;
  };
  const std::string longest(1024, 'z');
  for (const Case& item : {
           Case{"app_1-X", false, false, 0, ""},
           Case{"", true, false, 0, ""},
           Case{"", false, false, 1, "Invalid input params whose length is 0"},
           Case{"a.b;c", true, true, 0, ""},
           Case{"a.b", true, false, 1, kRefusal + "a.b"},
           Case{longest, false, false, 0, ""},
           Case{longest + "z", false, false, 1, kRefusal + longest + "z"},
           Case{std::string(100000, 'z'), false, true, 1, kRefusal + std::string(100000, 'z')},
       }) {
    for (const bool asText : {false, true}) {
      VynSetErrorInfo(nullptr);
      EXPECT_EQ(asText ? CheckInputWithCharPtr(item.input, item.allowEmpty, item.withSeparators)
                       : CheckInputWithCharPtr(item.input.c_str(), item.allowEmpty, item.withSeparators),
                item.status);
      EXPECT_STREQ(LastErrorText(), item.record.c_str());
      EXPECT_EQ(RetrieveErrorInfo() == nullptr || RetrieveErrorInfo()->mCode == 1, true);
    }
  }
}

TEST(InputCheckTest, NullIsOnlyLoggedAndLeavesTheRecord) {
  test::CapturedLog log;
  VynSetErrorInfo(3, "before");
  log.Clear();
  EXPECT_EQ(CheckInputWithCharPtr(static_cast<const char*>(nullptr), true, false), 2000057U);
  EXPECT_EQ(InputRegularMatching(nullptr, true), 1U);
  EXPECT_EQ(log.Texts(4),
            (std::vector<std::string>{"Unexpected nullptr value input", "Invalid params of context"}));
  EXPECT_STREQ(BroadcastGetLastErrorMessage(), "before");
}

TEST(InputCheckTest, Lengths) {
  const char* refusal = "Invalid input params which is nullptr or length is 0";
  EXPECT_EQ(CheckInputWithNormalLength(" \n"), 0U);
  EXPECT_EQ(CheckInputWithNormalLength(std::string(1024, '%')), 0U);
  for (const std::string& text : {std::string(), std::string(1025, 'a')}) {
    VynSetErrorInfo(nullptr);
    EXPECT_EQ(CheckInputWithNormalLength(text), 1U);
    EXPECT_STREQ(LastErrorText(), refusal);
    EXPECT_EQ(CheckInputWithNormalLength(text.c_str()), 1U);
  }
  VynSetErrorInfo(nullptr);
  EXPECT_EQ(CheckInputWithNormalLength(static_cast<const char*>(nullptr)), 1U);
  EXPECT_STREQ(LastErrorText(), refusal);

  EXPECT_EQ(CheckInputWithCharPtrLength("abc", 3), 0U);
  EXPECT_EQ(CheckInputWithCharPtrLength("", 0), 0U);
  EXPECT_EQ(CheckInputWithCharPtrLength("abc", 4), 1U);
  EXPECT_STREQ(LastErrorText(), "Invalid input param abc with length 3 whose length is not equal to 4");
  EXPECT_EQ(CheckInputWithCharPtrLength(nullptr, 0), 1U);
  EXPECT_STREQ(LastErrorText(), "Invalid input params is nullptr");
}

}  // namespace
}  // namespace vyn::common
