// Texts, checks of input, files, references and the environment.

#include "common/config/env_helper.h"
#include "common/log/error_info.h"
#include "common/util/file_util.h"
#include "common/util/input_check.h"
#include "common/util/random_index.h"
#include "common/util/ref.h"
#include "common/util/system.h"
#include "common/util/text.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::common {
namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::Pair;
using Texts = std::vector<std::string>;

/// What `function` makes of each text.
Texts Each(const std::function<std::string(const std::string&)>& function, const Texts& texts) {
  Texts results;
  std::transform(texts.begin(), texts.end(), std::back_inserter(results), function);
  return results;
}

TEST(TextTest, Numbers) {
  const auto read = [](const std::string& text) {  // "!" when it is refused
    long value = -1;
    const bool taken = VynStol(text, value);
    return (taken ? "" : "!") + std::to_string(value);
  };
  EXPECT_THAT(Each(read, {"0", "", "00", "-0", "+0", "12x", " 7", "+7", "007", "7 ", std::string("1\0", 2)}),
              ElementsAre("0", "!0", "!0", "!0", "!0", "!12", "7", "7", "7", "!7", "!1"));
  const std::string least = std::to_string(LONG_MIN);
  const std::string most = std::to_string(LONG_MAX);
  EXPECT_THAT(Each(read, {least, most, least + "0", most + "0"}),
              ElementsAre(least, most, "!" + least, "!" + most));
}

TEST(TextTest, Pieces) {
  const auto split = [](const std::string& text) {
    Texts items;
    std::set<std::string> set;
    SplitStr(text, "||", items);
    SplitStr(text, "||", set);
    EXPECT_EQ(set, std::set(items.begin(), items.end()));
    return std::accumulate(
        items.begin(), items.end(), std::string(),
        [](const std::string& all, const std::string& item) { return all + "<" + item + ">"; });
  };
  EXPECT_THAT(Each(split, {"rc||rc_v||tcp", "||a||||b", "a||", "||", "", "abc"}),
              ElementsAre("<rc><rc_v><tcp>", "<><a><><b>", "<a>", "<>", "", "<abc>"));
  EXPECT_THAT(SplitString(" a , ,b\t,", ','), ElementsAre("a", "", "b\t")) << "blanks only are trimmed";
  EXPECT_EQ(GetStrPrefix("a/b/c", '/'), "a");
  EXPECT_EQ(GetStrPrefix("a/b/c", '/', 2) + GetStrPrefix("a/b/c", '/', 3) + GetStrPrefix("a/b", '/', 0),
            "a/b");
  EXPECT_THAT(GetStrPostfix("a/b/c", '/'), Pair("a/b", "c"));
  EXPECT_THAT(GetStrPostfix("abc", '/'), Pair("", ""));
  const auto piece = [](unsigned int skip, unsigned int count) {
    return ParseStr("a:b:c", ':', skip, count);
  };
  EXPECT_THAT((Texts{piece(0, 0), piece(0, 2), piece(0, 9), piece(1, 1), piece(1, 0), piece(3, 1)}),
              ElementsAre("", "a:b", "a:b:c", "b", "b:c", ""));
  EXPECT_EQ(GenBcVarName("app_1", UINT_MAX), "app_1-4294967295");
}

TEST(TextTest, Replacements) {
  EXPECT_EQ(ReplaceStr("$H/a$H", "$H", "/x"), "/x/a/x");
  EXPECT_EQ(ReplaceStr("XX", "X", "aXa"), "aXaaXa");
  EXPECT_EQ(ReplaceStr("abab", "ab", ""), "ab");
  EXPECT_EQ(ReplaceStr("abb", "ab", "xa"), "xxa");
  EXPECT_EQ(ReplaceStr("abc", "", "y"), "abc");
  const auto host = [](const std::string& name) {  // "!" when there is none
    std::string found = "!";
    const bool known = GetMetaHostname("10.0.0.1:one,10.0.0.2=two", name, found) == 0;
    EXPECT_EQ(known, found != "!");
    return found;
  };
  EXPECT_THAT(Each(host, {"10.0.0.1", "10.0.0.2", "10.0.0.3", "two", "10.0.0"}),
              ElementsAre("one", "two", "!", "!", "1:one"));
}

TEST(InputCheckTest, EqualsTheRegularExpressions) {
  const std::regex withSeparators("([A-Za-z0-9_-]|[;]|[.]){1,1024}");
  const std::regex plain("([A-Za-z0-9_-]){1,1024}");
  Texts texts{"",
              std::string(1024, 'a'),
              std::string(1025, 'a'),
              std::string(1024, '.'),
              std::string(1025, '.'),
              std::string(100000, 'a')};
  for (int byte = 0; byte < 256; ++byte) {
    const char c = static_cast<char>(byte);
    texts.insert(texts.end(), {std::string(1, c), std::string("a") + c, c + std::string("a")});
  }
  const test::CapturedLog silence(5);
  for (const std::string& text : texts) {
    for (const bool separators : {true, false}) {
      const bool good = text.size() <= 1025 && std::regex_match(text, separators ? withSeparators : plain);
      EXPECT_EQ(InputRegularMatching(text, separators) == 0, good) << text;
      for (const bool allowEmpty : {true, false}) {
        const bool taken = good || (text.empty() && allowEmpty);
        VynSetErrorInfo(nullptr);
        EXPECT_EQ(CheckInputWithCharPtr(text, allowEmpty, separators), taken ? 0U : 1U) << text;
        EXPECT_EQ(RetrieveErrorInfo() == nullptr, taken);
        if (text.find('\0') == std::string::npos) {  // the byte that ends a C string
          EXPECT_EQ(InputRegularMatching(text.c_str(), separators) == 0, good) << text;
          EXPECT_EQ(CheckInputWithCharPtr(text.c_str(), allowEmpty, separators), taken ? 0U : 1U) << text;
        }
      }
    }
    EXPECT_EQ(CheckInputWithNormalLength(text), text.empty() || text.size() > 1024 ? 1U : 0U);
    EXPECT_EQ(CheckInputWithCharPtrLength(text.c_str(), std::strlen(text.c_str())), 0U);
    EXPECT_EQ(CheckInputWithCharPtrLength(text.c_str(), text.size() + 1), 1U);
  }
  VynSetErrorInfo(nullptr);
  EXPECT_EQ(CheckInputWithCharPtr(static_cast<const char*>(nullptr), true, false), 2000057U);
  EXPECT_EQ(InputRegularMatching(nullptr, true), 1U);
  EXPECT_EQ(RetrieveErrorInfo(), nullptr) << "a null text is only logged";
  EXPECT_EQ(CheckInputWithNormalLength(static_cast<const char*>(nullptr)), 1U);
  EXPECT_EQ(CheckInputWithNormalLength("%"), 0U);
  EXPECT_EQ(CheckInputWithCharPtrLength(nullptr, 0), 1U);
}

class FilesTest : public testing::Test {
 protected:
  /// The calls complain on standard output or in the log.
  FilesTest() { testing::internal::CaptureStdout(); }
  ~FilesTest() override {
    const std::string told = testing::internal::GetCapturedStdout();
    if (HasFailure()) {
      std::cout << told;  // the failures are among it
    }
  }
  const test::CapturedLog mSilence{5};
  const test::TempDir mDir;
};

TEST_F(FilesTest, PathsAndTheirRules) {
  const std::string longest(4095, 'a');
  const Texts listed{longest, "/opt/My_dir-1"};
  const Texts valid{"/a.b", "a b", "/\xc3\xa4", std::string("a\0b", 3)};
  const Texts invalid{"", longest + "a"};
  for (const Texts* texts : {&listed, &valid, &invalid}) {
    for (const std::string& path : *texts) {
      std::string out = "old";
      EXPECT_EQ(FileUtil::IsPathValid(path), texts != &invalid) << path;
      EXPECT_EQ(FileUtil::IsPathValidWhiteList(path), texts == &listed) << path;
      EXPECT_FALSE(FileUtil::IsPathExist(path) || FileUtil::IsPathWriteableAndReadable(path)) << path;
      EXPECT_EQ(FileUtil::RealPath(path, out) + FileUtil::RealPathNoLog(path, out), 2U);
      EXPECT_EQ(out, "old");
    }
  }
  EXPECT_TRUE(FileUtil::IsPathExist(mDir.Path()) && FileUtil::IsPathWriteableAndReadable(mDir.Path()));
  fs::create_directory_symlink(mDir.Path(), mDir / "link");
  std::string out;
  EXPECT_EQ(FileUtil::RealPath((mDir / "link") + "/../.", out), 0U);
  EXPECT_EQ(out, fs::canonical(mDir.Path()).parent_path());
}

TEST_F(FilesTest, CreatesAndDeletesFolders) {
  mDir.Write("file", "x");
  const fs::path old = fs::current_path();
  fs::current_path(mDir.Path());
  for (const std::string& path :
       {std::string("one"), std::string("a/b/c/"), std::string("e/"), std::string("f//"),
        std::string("./i/j"), mDir / "k/l/m/", std::string("/"), std::string("file/x"), std::string()}) {
    const bool fails = path == "file/x" || path.empty();
    const auto slash = path.find('/', 1);
    const bool deep =
        fails || (slash != std::string::npos && slash + 2 < path.size());  // its parent is missing
    EXPECT_EQ(FileUtil::CreatePath(path, 0700), deep ? 1U : 0U) << path;
    for (int round = 0; round < 2; ++round) {
      EXPECT_EQ(FileUtil::RecursiveCreatePath(path, 0755), fails ? 1U : 0U) << path;
    }
    EXPECT_EQ(fs::is_directory(path), !fails) << path;
  }
  EXPECT_EQ(fs::status("one").permissions(), fs::perms::owner_all);
  for (const char* path : {"", "a", "a/b/c", "one", "one", "file"}) {
    const bool fails = std::strlen(path) < 2;  // no path, and a folder that is not empty
    EXPECT_EQ(FileUtil::DeletePath(path), fails ? 1U : 0U) << path;
    EXPECT_EQ(fs::exists(path), path == std::string("a"));
  }
  fs::current_path(old);
}

TEST_F(FilesTest, DeletesATreeButNothingBehindALink) {
  mDir.Write("outside/kept", "x");
  for (const char* file :
       {"tree/a/b/c/file", "tree/a/b/file", "tree/.hidden", "tree/d/x", "busy/file", "busy_deleted/file"}) {
    mDir.Write(file, "x");
  }
  fs::create_directory_symlink(mDir / "outside", mDir / "tree/a/link");
  fs::create_symlink(mDir / "nowhere", mDir / "tree/dangling");
  fs::create_directory_symlink(mDir / "outside", mDir / "link");
  fs::create_symlink(mDir / "nowhere", mDir / "broken");
  for (const char* path : {"tree", "link", "broken", "missing"}) {
    EXPECT_EQ(FileUtil::RecursiveDeletePath(mDir / path), 0U) << path;
  }
  EXPECT_TRUE(fs::exists(mDir / "outside/kept"));
  mDir.Write("file", "x");
  for (const std::string& path : {std::string(), mDir / "busy", mDir / "file"}) {
    EXPECT_EQ(FileUtil::RecursiveDeletePath(path), 1U) << path;
  }
  EXPECT_EQ(FileUtil::Rename(mDir / "busy", mDir / "new"), 0U);
  EXPECT_EQ(FileUtil::Rename(mDir / "missing", mDir / "c"), 0U);
  EXPECT_EQ(FileUtil::Rename("", mDir / "c"), 1U);
  EXPECT_EQ(FileUtil::Rename(mDir / "new", ""), 1U);
  std::set<std::string> names{"before"};
  EXPECT_EQ(FileUtil::ListFiles(mDir.Path(), names), 0U);
  EXPECT_THAT(names, ElementsAre("before", "busy_deleted", "file_deleted", "new", "outside"));
  EXPECT_EQ(FileUtil::ListFiles(mDir / "no", names), 1U);
}

TEST_F(FilesTest, EnvironmentOfAnInstallation) {
  const std::string home = mDir / "home";
  fs::create_directory(home);
  EXPECT_EQ(EnvHelper().ReplaceVyn("$VYN_HOME"), "$VYN_HOME") << "nothing known yet";
  unsetenv("VYN_HOME");
  EXPECT_TRUE(EnvHelper::GetInstance() == nullptr);
  const std::map<std::string, std::string> good{
      {"VYN_HOME", home}, {"VYN_VERSION", "21.0.0"}, {"VYN_BINARY_TYPE", "linux-aarch64"}};
  for (const auto& [name, wrong] : std::map<std::string, Texts>{{"VYN_HOME", {"", "/missing"}},
                                                                {"VYN_VERSION", {"", "24.0"}},
                                                                {"VYN_BINARY_TYPE", {"", "linux"}}}) {
    for (const std::string& value : wrong) {
      for (const auto& [variable, text] : good) {
        setenv(variable.c_str(), (variable == name ? value : text).c_str(), 1);
      }
      EXPECT_EQ(EnvHelper().Initialize(), 1U) << name;
    }
    setenv(name.c_str(), good.at(name).c_str(), 1);
  }
  EXPECT_TRUE(EnvHelper::GetInstance() == nullptr) << "made once";
  EnvHelper helper;
  ASSERT_EQ(helper.Initialize(), 0U);
  EXPECT_EQ(helper.ReplaceVyn("a${VYN_HOME}/$VYN_HOME:$VYN_VERSION/${VYN_BINARY_TYPE} $VYN ${VYN_HOME"),
            "a" + home + "/" + home + ":21.0.0/linux-aarch64 $VYN ${VYN_HOME");
}

TEST_F(FilesTest, TheLogFolderLiesInTheHome) {
  const std::string home = mDir / "home";
  fs::create_directory(home);
  fs::create_directory(mDir / "outside");
  fs::create_directory_symlink(mDir / "outside", home + "/link");
  for (int round = 0; round < 2; ++round) {
    EXPECT_EQ(EnvHelper().CheckLogDir(home + "/logs", home), 0U);
  }
  for (const std::string& folder : Texts{"", std::string(4096, 'a'), mDir / "no/logs", mDir / "outside",
                                         home + "/link", home + "/../outside", mDir / "new"}) {
    EXPECT_EQ(EnvHelper().CheckLogDir(folder, home), 1U) << folder;
  }
  EXPECT_EQ(fs::status(home + "/logs").permissions(), fs::perms::owner_all);
  EXPECT_TRUE(fs::exists(mDir / "outside")) << "the user's own folder";
  EXPECT_FALSE(fs::exists(mDir / "new")) << "made by the check, and removed";
}

int gDeleted = 0;

struct Thing : Referable {
  ~Thing() override { ++gDeleted; }
  Ref<Thing> mNext;
};

TEST(RefTest, CountsEveryHolderAndDeletesAtTheLast) {
  Ref<Thing> first(new Thing);
  first.Set(first.Get());
  EXPECT_EQ(first->RefCount(), 1);
  {
    Ref<Thing> second = first;
    const Ref<Referable> base = second;
    EXPECT_EQ(first->RefCount(), 3);
    second = nullptr;
    EXPECT_EQ(first->RefCount(), 2);
  }
  Ref<Thing> moved = std::move(first);
  EXPECT_EQ(moved->RefCount(), 1);
  moved->mNext = new Thing;
  Thing* next = moved->mNext.Get();
  moved.Set(moved->mNext.Get());
  EXPECT_EQ(moved.Get(), next) << "an object that lives only through the old one survives";
  EXPECT_EQ(gDeleted, 1);
  moved.Set(nullptr);
  EXPECT_EQ(gDeleted, 2);
}

TEST(SystemTest, IndexesAreShuffledAndTheClockCountsMilliseconds) {
  std::vector<unsigned int> expected(100);
  std::iota(expected.begin(), expected.end(), 0U);
  std::vector<unsigned int> drawn;
  RandomIndexes(100, drawn);
  EXPECT_THAT(drawn, testing::UnorderedElementsAreArray(expected));
  ShuffleIndex(drawn);
  EXPECT_THAT(drawn, testing::UnorderedElementsAreArray(expected));
  EXPECT_NE(drawn, expected);
  test::FakeClock clock;
  const unsigned long begin = VynGetCurrentTimeMicros();
  clock.SleepFor(std::chrono::seconds(3));
  EXPECT_EQ(VynGetCurrentTimeMicros() - begin, 3000U);
}

}  // namespace
}  // namespace vyn::common
