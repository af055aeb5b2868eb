#include "platform/secure_memory/secure_memory.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(SecureMemoryTest, CopiesAndSetsWhatFits) {
  char to[4] = {'.', '.', '.', '.'};
  EXPECT_EQ(memcpy_s(to, 3, "abc", 3), 0);
  EXPECT_EQ(std::string(to, 4), "abc.");
  EXPECT_EQ(memcpy_s(to, 3, "wxyz", 4), 34);
  EXPECT_EQ(memcpy_s(nullptr, 3, "abc", 3), 22);
  EXPECT_EQ(memcpy_s(to, 3, nullptr, 3), 22);
  EXPECT_EQ(memset_s(to, 3, 'x', 4), 34);
  EXPECT_EQ(memset_s(nullptr, 3, 'x', 1), 22);
  EXPECT_EQ(std::string(to, 4), "abc.");
  EXPECT_EQ(memset_s(to, 3, 'x', 2), 0);
  EXPECT_EQ(std::string(to, 4), "xxc.");
}

TEST(SecureMemoryTest, FormatsWithinTheCountAndTheRoom) {
  struct Case {
    std::size_t room, count;
    const char* text;
    int result;
    std::string left;
  };
  for (const Case& item :
       {Case{8, 7, "abc", 3, "abc"}, Case{8, 7, "abcdefg", 7, "abcdefg"},
        Case{8, 7, "abcdefghij", 7, "abcdefg"}, Case{8, 2, "abc", 2, "ab"}, Case{4, 7, "abcd", -1, ""},
        Case{4, 7, "abc", 3, "abc"}, Case{1, 0, "abc", 0, ""}}) {
    char to[9];
    std::fill_n(to, sizeof(to), '!');
    EXPECT_EQ(snprintf_s(to, item.room, item.count, "%s", item.text), item.result) << item.text;
    EXPECT_EQ(std::string(to), item.left);
    EXPECT_EQ(to[item.room], '!');
  }
  char to[2] = "x";
  EXPECT_EQ(snprintf_s(to, 0, 1, "%s", "a"), -1);
  EXPECT_EQ(snprintf_s(nullptr, 2, 1, "%s", "a"), -1);
  EXPECT_EQ(to[0], 'x');
}

}  // namespace
