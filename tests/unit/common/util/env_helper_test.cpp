#include "common/config/env_helper.h"

#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <optional>

namespace vyn::common {
namespace {

namespace fs = std::filesystem;

void Set(const char* name, const std::optional<std::string>& value) {
  if (value.has_value()) {
    ::setenv(name, value->c_str(), 1);
  } else {
    ::unsetenv(name);
  }
}

class EnvHelperTest : public testing::Test {
 protected:
  ~EnvHelperTest() override { SetAll(std::nullopt, std::nullopt, std::nullopt); }

  static void SetAll(const std::optional<std::string>& home, const std::optional<std::string>& version,
                     const std::optional<std::string>& type) {
    Set("VYN_HOME", home);
    Set("VYN_VERSION", version);
    Set("VYN_BINARY_TYPE", type);
  }

  /// What CheckLogDir prints.
  std::string CheckLogDir(const std::string& logDir, unsigned int expected) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(EnvHelper().CheckLogDir(logDir, mHome), expected) << logDir;
    return testing::internal::GetCapturedStdout();
  }

  test::TempDir mDir;
  const std::string mHome = mDir / "home";
};

TEST_F(EnvHelperTest, RefusesEveryWrongValueWithOneLine) {
  fs::create_directory(mHome);
  const auto none = std::nullopt;
  struct Case {
    std::optional<std::string> home, version, type;
    std::string printed;
  };
  const std::string missing = mDir / "missing";
  for (const Case& item : {
           Case{none, "24.0.0", "linux-x86_64", "Environment variable \"VYN_HOME\" is not set. Exit.\n"},
           Case{"", "24.0.0", "linux-x86_64", "Environment variable \"VYN_HOME\" is not set. Exit.\n"},
           Case{missing, "24.0.0", "linux-x86_64",
                "Failed to get real path:" + missing +
                    "\nEnvironment variable \"VYN_HOME\" is invalid. Exit.\n"},
           Case{mHome, none, none, "Environment variable \"VYN_VERSION\" not set. Exit.\n"},
           Case{mHome, "", none, "Environment variable \"VYN_VERSION\" not set. Exit.\n"},
           Case{mHome, "24.0", none, "Environment variable \"VYN_VERSION\" is invalid. Exit.\n"},
           Case{mHome, "24.0.0", none, "Environment variable \"VYN_BINARY_TYPE\" not set. Exit.\n"},
           Case{mHome, "24.0.0", "linux", "Environment variable \"VYN_BINARY_TYPE\" is invalid. Exit.\n"},
           Case{mHome, "21.0.0", "linux-aarch64", ""},
       }) {
    SetAll(item.home, item.version, item.type);
    testing::internal::CaptureStdout();
    EXPECT_EQ(EnvHelper().Initialize(), item.printed.empty() ? 0U : 1U);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), item.printed);
  }
}

TEST_F(EnvHelperTest, ReplacesTheVariables) {
  fs::create_directory(mHome);
  fs::create_directory_symlink(mHome, mDir / "link");
  SetAll(mDir / "link", "22.0.0", "linux-aarch64");
  EnvHelper helper;
  EXPECT_EQ(helper.ReplaceVyn("$VYN_HOME"), "$VYN_HOME");  // nothing known yet
  ASSERT_EQ(helper.Initialize(), 0U);
  EXPECT_EQ(helper.GetHome(), fs::canonical(mHome));
  EXPECT_EQ(helper.ReplaceVyn(
                "a${VYN_HOME}/$VYN_HOME:$VYN_VERSION/${VYN_VERSION}${VYN_BINARY_TYPE} $VYN_BINARY_TYPE!"),
            "a" + helper.GetHome() + "/" + helper.GetHome() + ":22.0.0/22.0.0linux-aarch64 linux-aarch64!");
  EXPECT_EQ(helper.ReplaceVyn("$VYN ${VYN_HOME"), "$VYN ${VYN_HOME");
}

TEST_F(EnvHelperTest, TheInstanceIsMadeOnce) {
  SetAll(std::nullopt, std::nullopt, std::nullopt);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(EnvHelper::GetInstance() == nullptr);
  SetAll(mDir.Path(), "24.0.0", "linux-x86_64");
  EXPECT_TRUE(EnvHelper::GetInstance() == nullptr);  // no second attempt
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "Environment variable \"VYN_HOME\" is not set. Exit.\n");
}

TEST_F(EnvHelperTest, LogDirectory) {
  fs::create_directory(mHome);
  fs::create_directory(mDir / "outside");
  fs::create_directory_symlink(mDir / "outside", mHome + "/link");
  EXPECT_EQ(CheckLogDir(mHome + "/logs", 0), "");
  EXPECT_EQ(fs::status(mHome + "/logs").permissions(), fs::perms::owner_all);
  EXPECT_EQ(CheckLogDir(mHome + "/logs", 0), "");

  EXPECT_EQ(CheckLogDir("", 1), "vyn.log.dir is invalid. Exit.\n");
  EXPECT_EQ(CheckLogDir(std::string(4096, 'a'), 1), "vyn.log.dir is invalid. Exit.\n");
  EXPECT_EQ(CheckLogDir(mDir / "no/logs", 1), "Failed to create dir \n");
  for (const std::string& path : {mDir / "outside", mHome + "/link", mHome + "/../outside", mDir / "new"}) {
    EXPECT_EQ(CheckLogDir(path, 1), "Cannot create LogDir out of VYN_HOME\n") << path;
  }
  EXPECT_TRUE(fs::exists(mDir / "outside"));
  EXPECT_FALSE(fs::exists(mDir / "new"));
}

}  // namespace
}  // namespace vyn::common
