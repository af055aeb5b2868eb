#include "common/util/text.h"

#include <gtest/gtest.h>

#include <climits>

namespace vyn::common {
namespace {

using Texts = std::vector<std::string>;

TEST(TextTest, TrimsBlanksOnly) {
  struct Case {
    std::string text, expected;
  };
  for (const Case& item :
       {Case{"  a b ", "a b"}, Case{"   ", ""}, Case{"", ""}, Case{" a\t", "a\t"}, Case{"\r a", "\r a"}}) {
    std::string text = item.text;
    VynTrimString(text);
    EXPECT_EQ(text, item.expected);
  }
}

TEST(TextTest, ReadsNumbers) {
  struct Case {
    std::string text;
    bool taken;
    long value;
  };
  for (const Case& item :
       {Case{"0", true, 0}, Case{"", false, 0}, Case{"00", false, 0}, Case{"-0", false, 0},
        Case{"+0", false, 0}, Case{"12x", false, 12}, Case{" 7", true, 7}, Case{"+7", true, 7},
        Case{"007", true, 7}, Case{"7 ", false, 7}, Case{"-9223372036854775808", true, LONG_MIN},
        Case{"9223372036854775807", true, LONG_MAX}, Case{"9223372036854775808", false, LONG_MAX},
        Case{"-9223372036854775809", false, LONG_MIN}, Case{std::string("1\0", 2), false, 1}}) {
    long value = -1;
    EXPECT_EQ(VynStol(item.text, value), item.taken) << item.text;
    EXPECT_EQ(value, item.value) << item.text;
  }
}

TEST(TextTest, Splits) {
  struct Case {
    std::string text, separator;
    Texts expected;
  };
  for (const Case& item : {Case{"rc||rc_v||tcp", "||", {"rc", "rc_v", "tcp"}}, Case{"a,", ",", {"a"}},
                           Case{",a,,b", ",", {"", "a", "", "b"}}, Case{"", ",", {}},
                           Case{"abc", ",", {"abc"}}, Case{",", ",", {""}}, Case{"abc", "", {"abc"}}}) {
    Texts items{"kept"};
    SplitStr(item.text, item.separator, items);
    ASSERT_EQ(items[0], "kept");
    EXPECT_EQ(Texts(items.begin() + 1, items.end()), item.expected) << item.text;
    std::set<std::string> set;
    SplitStr(item.text, item.separator, set);
    EXPECT_EQ(set, std::set<std::string>(item.expected.begin(), item.expected.end()));
  }
  EXPECT_EQ(SplitString(" a , ,b,", ','), (Texts{"a", "", "b"}));
  EXPECT_EQ(SplitString("", ','), Texts());
}

TEST(TextTest, PrefixesAndPostfixes) {
  EXPECT_EQ(GetStrPrefix("a/b/c", '/'), "a");
  EXPECT_EQ(GetStrPrefix("abc", '/'), "");
  const Texts byCount{"", "a", "a/b", "a/b/c", ""};
  for (int count = 0; count < 5; ++count) {
    EXPECT_EQ(GetStrPrefix("a/b/c/", '/', count), byCount[static_cast<std::size_t>(count)]) << count;
  }
  EXPECT_EQ(GetStrPrefix("a/b", '/', -1), "");
  EXPECT_EQ(GetStrPostfix("a/b/c", '/'), std::make_pair(std::string("a/b"), std::string("c")));
  EXPECT_EQ(GetStrPostfix("abc", '/'), std::make_pair(std::string(), std::string()));
}

TEST(TextTest, ParseStrTakesPiecesAndNeverThrows) {
  struct Case {
    unsigned int skip, count;
    std::string expected;
  };
  for (const Case& item : {Case{0, 0, ""}, Case{0, 1, "a"}, Case{0, 2, "a:b"}, Case{0, 9, "a:b:c"},
                           Case{1, 1, "b"}, Case{1, 0, "b:c"}, Case{2, 1, "c"}, Case{2, UINT_MAX, "c"},
                           Case{3, 1, ""}, Case{100, 1, ""}, Case{UINT_MAX, 0, ""}}) {
    EXPECT_EQ(ParseStr("a:b:c", ':', item.skip, item.count), item.expected) << item.skip << "," << item.count;
  }
}

TEST(TextTest, ReplaceStrEndsWhateverTheReplacement) {
  struct Case {
    std::string text, from, to, expected;
  };
  for (const Case& item :
       {Case{"$H/a$H", "$H", "/x", "/x/a/x"}, Case{"aXb", "X", "XX", "aXXb"},
        Case{"XX", "X", "aXa", "aXaaXa"}, Case{"abab", "ab", "", "ab"}, Case{"abb", "ab", "xa", "xxa"},
        Case{"abc", "", "y", "abc"}, Case{"", "a", "b", ""}, Case{"abc", "d", "e", "abc"}}) {
    EXPECT_EQ(ReplaceStr(item.text, item.from, item.to), item.expected) << item.text;
  }
}

TEST(TextTest, MetaHostname) {
  const std::string mapping = "10.0.0.1:one,10.0.0.2=two";
  struct Case {
    std::string name;
    unsigned int status;
    std::string host;
  };
  for (const Case& item : {Case{"10.0.0.1", 0, "one"}, Case{"10.0.0.2", 0, "two"}, Case{"10.0.0.3", 1, "old"},
                           Case{"two", 1, "old"}, Case{"10.0.0", 0, "1:one"}, Case{"tw", 0, ""}}) {
    std::string host = "old";
    EXPECT_EQ(GetMetaHostname(mapping, item.name, host), item.status) << item.name;
    EXPECT_EQ(host, item.host) << item.name;
  }
}

TEST(TextTest, NameOfAVariable) {
  EXPECT_EQ(GenBcVarName("app_1", 42), "app_1-42");
  EXPECT_EQ(GenBcVarName("a", 4294967295U), "a-4294967295");
}

}  // namespace
}  // namespace vyn::common
