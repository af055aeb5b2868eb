#include "common/config/configuration.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <fstream>

namespace vyn::common {
namespace {

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

constexpr const char* kPort = "vyn.tessel.rpc.shuffle_server.port";
constexpr const char* kUrl = "vyn.zookeeper.server.url";

class ConfigurationFileTest : public testing::Test {
 protected:
  ~ConfigurationFileTest() override { Configuration::gInstance = nullptr; }
  test::TempDir mDir;
};

TEST_F(ConfigurationFileTest, AnyBadPairRefusesAFirstLoad) {
  const std::string good = std::string(kPort) + " = 4000\n";
  const std::string unknown = ">, it was not validate configure type.\n";
  const std::string wrong =
      std::string("<") + kPort + ">, it was empty or in wrong type, it should be a int number.\n";
  const struct {
    std::string text;
    std::string words;
  } cases[] = {
      {good + "vyn.unknown=1\n", "<vyn.unknown" + unknown},
      {good + "VYN.zookeeper.server.url=1\n", "<VYN.zookeeper.server.url" + unknown},
      {std::string(kPort) + "=\n", wrong},
      {std::string(kPort) + "=38x1\n", wrong},
      {std::string(kPort) + "=3891\r\n", wrong},
      {std::string(kPort) + "=\xff\xfe\n", wrong},
      {std::string("\x7f"
                   "ELF\0\1=\xff\n\0\0=\n",
                   14),
       ""},
  };
  for (const auto& c : cases) {
    CaptureStdout();
    EXPECT_TRUE(Configuration::GetInstance(mDir.Write("f", c.text)) == nullptr) << c.text;
    const std::string printed = GetCapturedStdout();
    EXPECT_TRUE(c.words.empty() ? !printed.empty() : printed == c.words) << printed;
    EXPECT_TRUE(Configuration::GetInstance() == nullptr);
  }
  CaptureStdout();
  Configuration::InitInstance(mDir / "missing");
  EXPECT_EQ(GetCapturedStdout(), "");
  EXPECT_TRUE(Configuration::GetInstance() == nullptr);
}

TEST_F(ConfigurationFileTest, TheFirstGoodLoadIsTheStoreForGood) {
  const auto store =
      Configuration::GetInstance(mDir.Write("a", std::string(kPort) + "=4000\n" + kUrl + "=one\r\n"));
  ASSERT_TRUE(store != nullptr);
  EXPECT_EQ(store->GetInt(kPort, 0), 4000);
  EXPECT_EQ(store->GetString(kUrl, ""), "one\r");
  EXPECT_EQ(store->GetInt("vyn.tessel.rpc.shuffle_meta.port", 0), 3892);
  const std::string other = mDir.Write("b", std::string(kPort) + "=5000\n");
  EXPECT_TRUE(Configuration::GetInstance(other) == store);
  Configuration::InitInstance(other);
  EXPECT_EQ(Configuration::GetInstance()->GetInt(kPort, 0), 4000);
}

TEST_F(ConfigurationFileTest, AMergeGoesOnPastBadPairs) {
  Ref<Configuration> any(new Configuration);
  CaptureStdout();
  EXPECT_FALSE(any->MergeConfig(mDir.Write("bad", "vyn.unknown=1\n")));
  EXPECT_TRUE(Configuration::GetInstance() == nullptr);
  EXPECT_TRUE(any->MergeConfig(mDir.Write("first", std::string(kPort) + "=4000\n")));
  EXPECT_FALSE(any->MergeConfig(mDir / "missing"));
  EXPECT_TRUE(any->MergeConfig(
      mDir.Write("second", std::string("vyn.unknown=1\n") + kPort + "=x\n" + kUrl + "=two\n")));
  const std::string printed = GetCapturedStdout();
  EXPECT_NE(printed.find("<vyn.unknown>, it was not validate configure type.\n"), std::string::npos);
  const auto store = Configuration::GetInstance();
  EXPECT_EQ(store->GetInt(kPort, 0), 4000);
  EXPECT_EQ(store->GetString(kUrl, ""), "two");
  EXPECT_EQ(any->GetString(kUrl, ""), "") << "the object that was called is not the one that is merged into";
}

TEST_F(ConfigurationFileTest, AMillionPairsCanBeMergedAndOneMoreCannot) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "a count on one thread: the other builds show it, this one would take a minute for it";
#endif
  ASSERT_TRUE(Configuration::GetInstance(mDir.Write("first", "")) != nullptr);
  const std::string path = mDir / "many";
  {
    std::ofstream file(path);
    file << kUrl << "=merged\n";
    for (int i = 1; i < 1000000; ++i) {
      file << i << "=\n";
    }
  }
  test::CapturedLog log;
  const auto merge = [&] {
    CaptureStdout();
    const bool merged = Configuration::GetInstance()->MergeConfig(path);
    GetCapturedStdout();
    return merged;
  };
  EXPECT_TRUE(merge());
  EXPECT_EQ(Configuration::GetInstance()->GetString(kUrl, ""), "merged");
  Configuration::GetInstance()->Set(kUrl, "kept");
  std::ofstream(path, std::ios::app) << "one more=\n";
  EXPECT_FALSE(merge());
  EXPECT_EQ(Configuration::GetInstance()->GetString(kUrl, ""), "kept");
  EXPECT_TRUE(log.Has(4, "Conf file has too much lines, failed to merge config"));
}

}  // namespace
}  // namespace vyn::common
