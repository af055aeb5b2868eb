#include "common/config/kv_parser.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>

namespace vyn::common {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

TEST(KVParserTest, Lines) {
  const struct {
    std::string line;
    KVLine kind;
    std::string key;
    std::string value;
  } cases[] = {
      {"", KVLine::kBlank, "-", "-"},
      {"    ", KVLine::kBlank, "-", "-"},
      {"# a=b", KVLine::kComment, "-", "-"},
      {"   # a=b", KVLine::kComment, "-", "-"},
      {"just words", KVLine::kNoSeparator, "-", "-"},
      {"=value", KVLine::kNoKey, "-", "-"},
      {"  = value", KVLine::kNoKey, "-", "-"},
      {"a=b", KVLine::kPair, "a", "b"},
      {"  a  =  b c  ", KVLine::kPair, "a", "b c"},
      {"a=", KVLine::kPair, "a", ""},
      {"a==b=", KVLine::kPair, "a", "=b="},
      {"a=b # c", KVLine::kPair, "a", "b # c"},
      {"a=b\t", KVLine::kPair, "a", "b\t"},
      {"a=b\r", KVLine::kPair, "a", "b\r"},
      {"\ta=b", KVLine::kPair, "\ta", "b"},
      {std::string("a\0=\xff\0", 5), KVLine::kPair, std::string("a\0", 2), std::string("\xff\0", 2)},
  };
  for (const auto& c : cases) {
    std::string key = "-";
    std::string value = "-";
    EXPECT_EQ(KVParser::ParseLine(c.line, key, value), c.kind) << c.line;
    EXPECT_EQ(key, c.key) << c.line;
    EXPECT_EQ(value, c.value) << c.line;
  }
}

TEST(KVParserTest, Markers) {
  const auto expand = [](const std::string& text) {
    std::string key;
    std::string value;
    KVParser::ParseLine("k=" + text, key, value);
    return value;
  };
  for (const char* name : {"VYN_HOME", "VYN_BINARY_TYPE", "VYN_VERSION"}) {
    unsetenv(name);
  }
  EXPECT_EQ(expand("a${VYN_HOME}/${VYN_VERSION}"), "a${VYN_HOME}/${VYN_VERSION}");
  setenv("VYN_HOME", "/opt/../opt/data", 1);
  setenv("VYN_BINARY_TYPE", "linux-x86_64", 1);
  setenv("VYN_VERSION", "24.0.0", 1);
  EXPECT_EQ(expand("${VYN_HOME}/logs/"), "/opt/../opt/data/logs/");
  EXPECT_EQ(expand("lost${VYN_HOME}/x${VYN_HOME}"), "/opt/../opt/data/x${VYN_HOME}");
  EXPECT_EQ(expand("kept/${VYN_BINARY_TYPE}/${VYN_VERSION}/${VYN_VERSION}"),
            "kept/linux-x86_64/24.0.0/${VYN_VERSION}");
  setenv("VYN_HOME", "${VYN_VERSION}", 1);
  EXPECT_EQ(expand("${VYN_HOME}"), "24.0.0");
  setenv("VYN_HOME", "", 1);
  EXPECT_EQ(expand("x${VYN_HOME}/y"), "/y");
}

TEST(KVParserTest, FilesKeepTheOrderOfFirstAppearance) {
  test::TempDir dir;
  KVParser parser;
  ASSERT_TRUE(parser.FromFile(dir.Write("f", "b=1\n# x\na=2\n\nb=3\nlast=no line feed")));
  ASSERT_EQ(parser.Size(), 3U);
  std::string key = "-";
  std::string value = "-";
  parser.GetI(3, key, value);
  EXPECT_EQ(key + value, "--");
  parser.GetI(0, key, value);
  EXPECT_EQ(key + "=" + value, "b=3");
  EXPECT_TRUE(parser.GetItem("last", value));
  EXPECT_EQ(value, "no line feed");
  EXPECT_FALSE(parser.GetItem("absent", value));
  EXPECT_EQ(value, "no line feed");
  CaptureStdout();
  parser.Dump();
  EXPECT_EQ(GetCapturedStdout(), "b = 3\na = 2\nlast = no line feed\n");
  EXPECT_TRUE(KVParser().FromFile(dir.Write("empty", "")));
}

TEST(KVParserTest, PathsThatAreNoReadableFile) {
  test::TempDir dir;
  const auto read = [](const std::string& path) {
    CaptureStdout();
    EXPECT_FALSE(KVParser().FromFile(path)) << path;
    return GetCapturedStdout();
  };
  EXPECT_EQ(read(""), "");
  EXPECT_EQ(read(dir / "missing"), "");
  EXPECT_EQ(read(std::string(4096, '/')), "");
  EXPECT_EQ(read(dir.Path()), "File <" + dir.Path() + "> is not a regular file\n");
  ASSERT_EQ(mkfifo((dir / "pipe").c_str(), 0600), 0);
  EXPECT_EQ(read(dir / "pipe"), "File <" + dir / "pipe> is not a regular file\n");
  EXPECT_EQ(read("/dev/zero"), "File </dev/zero> is not a regular file\n");
  if (geteuid() != 0) {
    const std::string locked = dir.Write("locked", "a=b\n");
    ASSERT_EQ(chmod(locked.c_str(), 0), 0);
    EXPECT_EQ(read(locked), "File <" + locked + "> doesn't exist\n");
  }
}

}  // namespace
}  // namespace vyn::common
