#include "platform/secure_memory/secure_memory.h"

#include "support/test.h"

namespace {

TEST(SecureMemoryTest, SecureFunctionsRefuseABufferThatIsTooSmall) {
  char to[5] = "....";
  EXPECT_EQ((std::vector{memcpy_s(to, 3, "wxyz", 4), memcpy_s(nullptr, 3, "abc", 3),
                         memcpy_s(to, 3, nullptr, 3), memset_s(to, 3, 'x', 4), memset_s(nullptr, 3, 'x', 1)}),
            (std::vector{34, 22, 22, 34, 22}));
  EXPECT_STREQ(to, "....");
  EXPECT_EQ(memcpy_s(to, 3, "abc", 3) + memset_s(to, 3, 'x', 2), 0);
  EXPECT_STREQ(to, "xxc.");
  using Row = std::tuple<int, int, const char*, int, std::string>;
  for (const auto& [room, count, text, result, left] :
       {Row{8, 7, "abcdefghij", 7, "abcdefg"}, Row{8, 2, "abc", 2, "ab"}, Row{4, 7, "abcd", -1, ""},
        Row{4, 7, "abc", 3, "abc"}, Row{0, 1, "a", -1, "!!!!!!!!!"}}) {
    std::string made(9, '!');
    EXPECT_EQ(snprintf_s(made.data(), room, count, "%s", text), result) << text;
    EXPECT_EQ(made.c_str(), left) << text;
    EXPECT_EQ(made[room], '!') << "behind the room of " << text;
  }
  EXPECT_EQ(snprintf_s(nullptr, 2, 1, "%s", "a"), -1);
}

}  // namespace
