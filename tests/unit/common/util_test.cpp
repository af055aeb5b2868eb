// Texts, checks of input, random order, files and the environment.

#include "common/config/env_helper.h"
#include "common/log/error_info.h"
#include "common/util/file_util.h"
#include "common/util/input_check.h"
#include "common/util/random_index.h"
#include "common/util/text.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::common {
namespace {

namespace fs = std::filesystem;
using Texts = std::vector<std::string>;

TEST(TextTest, SplitCutsATextAtItsSeparators) {
  const auto split = [](const std::string& text) {
    Texts items;
    SplitStr(text, "||", items);
    return items;
  };
  EXPECT_EQ(split("||rc||||rc_v||"), (Texts{"", "rc", "", "rc_v"}));
  EXPECT_EQ(split(""), Texts{});
  EXPECT_EQ(SplitString(" a , ,b\t,", ','), (Texts{"a", "", "b\t"})) << "blanks only are trimmed";
  EXPECT_EQ((Texts{GetStrPrefix("a/b/c", '/', 2), GetStrPrefix("a/b", '/'), GetStrPrefix("a/b", '/', 0),
                   ParseStr("a:b:c", ':', 0, 2), ParseStr("a:b:c", ':', 1, 0), ParseStr("a:b:c", ':', 3, 1),
                   GenBcVarName("app_1", UINT_MAX), ReplaceStr("$H/a$H", "$H", "/x"),
                   ReplaceStr("XX", "X", "aXa"), ReplaceStr("abc", "", "y")}),
            (Texts{"a/b", "a", "", "a:b", "b:c", "", "app_1-4294967295", "/x/a/x", "aXaaXa", "abc"}));
  EXPECT_EQ(GetStrPostfix("a/b/c", '/'), std::pair(std::string("a/b"), std::string("c")));
  std::string host;
  EXPECT_EQ(GetMetaHostname("10.0.0.1:one,10.0.0.2:two", "10.0.0.3", host), 1U);
  EXPECT_EQ(GetMetaHostname("10.0.0.1:one,10.0.0.2:two", "10.0.0.1", host), 0U);
  EXPECT_EQ(host, "one");
}

TEST(InputCheckTest, InputChecksAcceptWhatTheirRegularExpressionsAccept) {
  const std::regex withSeparators("([A-Za-z0-9_-]|[;]|[.]){1,1024}");
  const std::regex plain("([A-Za-z0-9_-]){1,1024}");
  Texts texts{"", std::string(1024, 'a'), std::string(1025, 'a'), std::string(1024, '.')};
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    texts.insert(texts.end(), {std::string(1, c), std::string("a") + c, c + std::string("a")});
  }
  const test::CapturedLog silence(5);
  for (const std::string& text : texts) {
    const bool isCString = text.find('\0') == std::string::npos;
    for (const bool separators : {true, false}) {
      const bool good = std::regex_match(text, separators ? withSeparators : plain);
      EXPECT_EQ(InputRegularMatching(text, separators) == 0, good) << text;
      for (const bool allowEmpty : {true, false}) {
        const unsigned int status = good || (text.empty() && allowEmpty) ? 0 : 1;
        EXPECT_EQ(CheckInputWithCharPtr(text, allowEmpty, separators), status) << text;
        EXPECT_TRUE(!isCString || CheckInputWithCharPtr(text.c_str(), allowEmpty, separators) == status)
            << text;
      }
    }
    EXPECT_EQ(CheckInputWithNormalLength(text), text.empty() || text.size() > 1024 ? 1U : 0U);
    EXPECT_EQ(CheckInputWithCharPtrLength(text.c_str(), text.size()), isCString ? 0U : 1U);
  }
  EXPECT_EQ(CheckInputWithCharPtr(static_cast<const char*>(nullptr), true, false), 2000057U);
  EXPECT_EQ(CheckToken("secret.word"), 1U);
  EXPECT_EQ(std::string(LastErrorText()).find("secret"), std::string::npos);
  EXPECT_EQ(CheckInputWithNormalLength(static_cast<const char*>(nullptr)), 1U);
}

TEST(RandomIndexTest, RandomIndexReturnsEveryIndexOnce) {
  std::vector<unsigned int> one(100);
  std::vector<unsigned int> other;
  ShuffleIndex(one);
  RandomIndexes(100, other);
  EXPECT_TRUE(one != other && std::is_permutation(one.begin(), one.end(), other.begin(), other.end()));
  EXPECT_EQ(*std::set(one.begin(), one.end()).rbegin() + std::set(one.begin(), one.end()).size(), 199U);
}

class FilesTest : public testing::Test {
 protected:
  const test::CapturedLog mSilence{5};
  const test::TempDir mDir;
};

TEST_F(FilesTest, FileUtilResolvesPathsAndMakesFolders) {
  fs::create_directory_symlink(mDir.Path(), mDir / "link");
  std::string out = "old";
  EXPECT_EQ(FileUtil::RealPath("", out) + FileUtil::RealPath(mDir / "missing", out), 2U);
  EXPECT_EQ(out, "old");
  EXPECT_EQ(FileUtil::RealPath((mDir / "link") + "/../.", out), 0U);
  EXPECT_EQ(out, fs::canonical(mDir.Path()).parent_path());
  mDir.Write("file", "x");
  for (const std::string& path : {mDir / "k/l/m//", mDir / "k/l/m", std::string("/")}) {
    EXPECT_EQ(FileUtil::RecursiveCreatePath(path, 0700), 0U) << path;
  }
  EXPECT_EQ(fs::status(mDir / "k/l").permissions(), fs::perms::owner_all);
  EXPECT_TRUE(FileUtil::IsPathWriteableAndReadable(mDir / "file") && FileUtil::IsPathValidWhiteList("/a_b"));
  EXPECT_FALSE(FileUtil::IsPathValidWhiteList("/a.b") || FileUtil::IsPathValid(std::string(4096, 'a')));
  EXPECT_EQ(FileUtil::RecursiveCreatePath(mDir / "file/x", 0700), 1U);
  EXPECT_EQ(FileUtil::CreatePath(mDir / "no/parent", 0700), 1U);
  EXPECT_EQ(FileUtil::DeletePath(mDir / "k"), 1U) << "it is not empty";
  EXPECT_EQ(FileUtil::DeletePath(mDir / "file") + FileUtil::DeletePath(mDir / "file"), 0U);
}

TEST_F(FilesTest, DeletePathDeletesATreeAndFollowsNoSymbolicLink) {
  for (const char* file :
       {"outside/kept", "tree/a/b/file", "tree/.hidden", "busy/x", "busy_deleted/x", "file"}) {
    mDir.Write(file, "x");
  }
  fs::create_directory_symlink(mDir / "outside", mDir / "tree/a/link");
  fs::create_directory_symlink(mDir / "outside", mDir / "link");
  for (const char* path : {"tree", "link", "missing"}) {
    EXPECT_EQ(FileUtil::RecursiveDeletePath(mDir / path), 0U) << path;
  }
  EXPECT_TRUE(fs::exists(mDir / "outside/kept"));
  for (const std::string& path : {std::string(), mDir / "busy", mDir / "file"}) {
    EXPECT_EQ(FileUtil::RecursiveDeletePath(path), 1U) << path;
  }
  EXPECT_EQ(FileUtil::Rename(mDir / "busy", mDir / "new") + FileUtil::Rename(mDir / "new", ""), 1U);
  std::set<std::string> names{"before"};
  EXPECT_EQ(FileUtil::ListFiles(mDir.Path(), names) + FileUtil::ListFiles(mDir / "no", names), 1U);
  EXPECT_EQ(names, (std::set<std::string>{"before", "busy_deleted", "file_deleted", "new", "outside"}));
}

TEST_F(FilesTest, EnvHelperFindsTheFilesOfAnInstallation) {
  const std::string home = mDir.Path();
  const std::tuple<const char*, std::string, Texts> rows[] = {
      {"VYN_HOME", home, {"", "/missing"}},
      {"VYN_VERSION", "21.0.0", {"", "24.0"}},
      {"VYN_BINARY_TYPE", "linux-aarch64", {"", "linux"}}};
  EnvHelper helper;
  for (const auto& [name, good, wrong] : rows) {
    for (const std::string& value : wrong) {
      setenv(name, value.c_str(), 1);
      EXPECT_EQ(helper.Initialize(), 1U) << name;
    }
    setenv(name, good.c_str(), 1);
  }
  EXPECT_EQ(helper.Initialize(), 0U);
  EXPECT_EQ(helper.ReplaceVyn("a${VYN_HOME}/$VYN_HOME:$VYN_VERSION/${VYN_BINARY_TYPE} $VYN ${VYN_HOME"),
            "a" + home + "/" + home + ":21.0.0/linux-aarch64 $VYN ${VYN_HOME");
}

TEST_F(FilesTest, TheLogFolderLiesInTheHome) {
  const std::string home = mDir / "home";
  mDir.Write("home/file", "");
  mDir.Write("outside/file", "");
  fs::create_directory_symlink(mDir / "outside", home + "/link");
  for (const std::string& folder : {home + "/logs", home + "/logs", home + "/link", home + "/../outside",
                                    mDir / "outside", mDir / "new", mDir / "no/logs", std::string()}) {
    EXPECT_EQ(EnvHelper().CheckLogDir(folder, home), folder == home + "/logs" ? 0U : 1U) << folder;
  }
  EXPECT_EQ(fs::status(home + "/logs").permissions(), fs::perms::owner_all);
  EXPECT_TRUE(fs::exists(mDir / "outside")) << "the user's own folder";
  EXPECT_FALSE(fs::exists(mDir / "new")) << "made by the check, and removed";
}

}  // namespace
}  // namespace vyn::common
