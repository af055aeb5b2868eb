#include "platform/secure_memory/secure_memory.h"

#include "support/test.h"

namespace {

TEST(SecureMemoryTest, CopiesSetsAndFormatsWhatFits) {
  char to[4] = {'.', '.', '.', '.'};
  EXPECT_EQ(memcpy_s(to, 3, "wxyz", 4), 34);
  EXPECT_EQ(memcpy_s(nullptr, 3, "abc", 3), 22);
  EXPECT_EQ(memcpy_s(to, 3, nullptr, 3), 22);
  EXPECT_EQ(memset_s(to, 3, 'x', 4), 34);
  EXPECT_EQ(memset_s(nullptr, 3, 'x', 1), 22);
  EXPECT_EQ(std::string(to, 4), "....");
  EXPECT_EQ(memcpy_s(to, 3, "abc", 3), 0);
  EXPECT_EQ(memset_s(to, 3, 'x', 2), 0);
  EXPECT_EQ(std::string(to, 4), "xxc.");
  struct Case {
    std::size_t room, count;
    const char* text;
    int result;
    std::string left;
  };
  for (const Case& c : {Case{8, 7, "abcdefg", 7, "abcdefg"}, Case{8, 7, "abcdefghij", 7, "abcdefg"},
                        Case{8, 2, "abc", 2, "ab"}, Case{4, 7, "abcd", -1, ""}, Case{4, 7, "abc", 3, "abc"},
                        Case{1, 0, "abc", 0, ""}, Case{0, 1, "a", -1, "!!!!!!!!!"}}) {
    std::string made(9, '!');
    EXPECT_EQ(snprintf_s(made.data(), c.room, c.count, "%s", c.text), c.result) << c.text;
    EXPECT_EQ(made.substr(0, made.find('\0')), c.left);
    EXPECT_EQ(made[c.room], '!') << "behind the room of " << c.text;
  }
  EXPECT_EQ(snprintf_s(nullptr, 2, 1, "%s", "a"), -1);
}

}  // namespace
