#include "common/util/file_util.h"

#include "common/log/error_info.h"
#include "support/captured_log.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

namespace vyn::common {
namespace {

namespace fs = std::filesystem;

class FileUtilTest : public testing::Test {
 protected:
  test::TempDir mDir;
  test::CapturedLog mLog;
};

using Texts = std::vector<std::string>;

/// What `work` writes to standard output.
template <typename Work>
std::string Printed(const Work& work) {
  testing::internal::CaptureStdout();
  work();
  return testing::internal::GetCapturedStdout();
}

TEST_F(FileUtilTest, ThePathRule) {
  const std::string longest(4095, 'a');
  EXPECT_FALSE(FileUtil::IsPathValid(""));
  EXPECT_TRUE(FileUtil::IsPathValid(longest));
  EXPECT_FALSE(FileUtil::IsPathValid(longest + "a"));
  EXPECT_TRUE(FileUtil::IsPathValidWhiteList("/opt/My_dir-1"));
  for (const std::string& path : {std::string(), longest + "a", std::string("/a.b"), std::string("a b"),
                                  std::string("/\xc3\xa4"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(FileUtil::IsPathValidWhiteList(path)) << path;
  }
  EXPECT_TRUE(FileUtil::IsPathExist(mDir.Path()));
  EXPECT_FALSE(FileUtil::IsPathExist(mDir / "x"));
  EXPECT_FALSE(FileUtil::IsPathExist(longest + "a"));
  EXPECT_TRUE(FileUtil::IsPathWriteableAndReadable(mDir.Path()));
  EXPECT_FALSE(FileUtil::IsPathWriteableAndReadable(mDir / "x"));
}

TEST_F(FileUtilTest, RealPath) {
  fs::create_directory_symlink(mDir.Path(), mDir / "link");
  std::string out;
  EXPECT_EQ(FileUtil::RealPath((mDir / "link") + "/../.", out), 0U);
  EXPECT_EQ(out, fs::canonical(mDir.Path()).parent_path());
  out = "old";
  const std::string tooLong(4096, 'a');
  for (const auto& [path, complaint] :
       {std::pair{std::string(), std::string("Invalid path:")}, std::pair{tooLong, "Invalid path:" + tooLong},
        std::pair{mDir / "no", "Failed to get real path:" + (mDir / "no")}}) {
    mLog.Clear();
    EXPECT_EQ(FileUtil::RealPath(path, out), 1U);
    EXPECT_EQ(mLog.Texts(4), Texts{complaint});
    mLog.Clear();
    EXPECT_EQ(Printed([&, &where = path] { EXPECT_EQ(FileUtil::RealPathNoLog(where, out), 1U); }),
              complaint + "\n");
    EXPECT_TRUE(mLog.Lines().empty());
  }
  EXPECT_EQ(out, "old");
  EXPECT_EQ(RetrieveErrorInfo(), nullptr);
}

TEST_F(FileUtilTest, CreatesAndDeletesOneLevel) {
  EXPECT_EQ(FileUtil::CreatePath(mDir / "one", 0700), 0U);
  EXPECT_EQ(fs::status(mDir / "one").permissions(), fs::perms::owner_all);
  EXPECT_EQ(FileUtil::CreatePath(mDir / "one", 0700), 0U);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::CreatePath(mDir / "x/y", 0700), 1U); }), "");
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::CreatePath("", 0700), 1U); }), "Invalid path:\n");
  mDir.Write("one/file", "x");
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::DeletePath(mDir / "one"), 1U); }), "");
  EXPECT_EQ(FileUtil::DeletePath(mDir / "one/file"), 0U);
  EXPECT_EQ(FileUtil::DeletePath(mDir / "one"), 0U);
  EXPECT_EQ(FileUtil::DeletePath(mDir / "one"), 0U);
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::DeletePath(""), 1U); }), "Invalid path:\n");
  EXPECT_TRUE(fs::is_empty(mDir.Path()));
}

TEST_F(FileUtilTest, CreatesMissingParents) {
  const fs::path old = fs::current_path();
  fs::current_path(mDir.Path());
  for (const char* path : {"a/b/c/", "d", "e/", "f//", "g/h", "./i/j"}) {
    EXPECT_EQ(FileUtil::RecursiveCreatePath(path, 0755), 0U) << path;
    EXPECT_TRUE(fs::is_directory(path)) << path;
    EXPECT_EQ(FileUtil::RecursiveCreatePath(path, 0755), 0U) << path;
  }
  fs::current_path(old);
  EXPECT_EQ(FileUtil::RecursiveCreatePath(mDir / "k/l/m/", 0755), 0U);
  EXPECT_TRUE(fs::is_directory(mDir / "k/l/m"));
  EXPECT_EQ(FileUtil::RecursiveCreatePath("/", 0755), 0U);

  mDir.Write("file", "x");
  const std::string below = mDir / "file/x";
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::RecursiveCreatePath(below, 0755), 1U); }),
            "Mkdir path error: " + below + "\n");
  EXPECT_EQ(Printed([&] { EXPECT_EQ(FileUtil::RecursiveCreatePath("", 0755), 1U); }), "Invalid path:\n");
}

TEST_F(FileUtilTest, DeletesATreeButNothingBehindALink) {
  mDir.Write("outside/kept", "x");
  for (const char* file :
       {"tree/a/b/c/file", "tree/a/b/file", "tree/.hidden", "tree/d_deleted/x", "tree/d/x"}) {
    mDir.Write(file, "x");
  }
  fs::create_directories(mDir / "tree/empty");
  fs::create_directory_symlink(mDir / "outside", mDir / "tree/a/link");
  fs::create_symlink(mDir / "nowhere", mDir / "tree/dangling");
  fs::create_directory_symlink(mDir / "outside", mDir / "link");
  fs::create_symlink(mDir / "nowhere", mDir / "broken");
  fs::remove_all(mDir / "tree/d_deleted");

  for (const char* path : {"tree", "link", "broken", "missing"}) {
    EXPECT_EQ(FileUtil::RecursiveDeletePath(mDir / path), 0U) << path;
    EXPECT_FALSE(fs::exists(fs::symlink_status(mDir / path))) << path;
  }
  std::set<std::string> names;
  EXPECT_EQ(FileUtil::ListFiles(mDir.Path(), names), 0U);
  EXPECT_EQ(names, std::set<std::string>{"outside"});
  EXPECT_TRUE(fs::exists(mDir / "outside/kept"));
  EXPECT_TRUE(mLog.Lines().empty());
}

TEST_F(FileUtilTest, RecursiveDeleteComplains) {
  EXPECT_EQ(FileUtil::RecursiveDeletePath(""), 1U);
  mDir.Write("tree/file", "x");
  mDir.Write("tree_deleted/file", "x");
  EXPECT_EQ(FileUtil::RecursiveDeletePath(mDir / "tree"), 1U);
  EXPECT_TRUE(fs::exists(mDir / "tree/file"));
  mDir.Write("file", "x");
  EXPECT_EQ(FileUtil::RecursiveDeletePath(mDir / "file"), 1U);
  EXPECT_TRUE(fs::exists(mDir / "file_deleted"));
  EXPECT_EQ(mLog.Texts(4), (Texts{"Invalid path:",
                                  "Failed to rename " + (mDir / "tree") + " to " + (mDir / "tree_deleted") +
                                      " with errno " + std::to_string(ENOTEMPTY),
                                  "Can't open directory " + (mDir / "file_deleted")}));
}

TEST_F(FileUtilTest, ListsAndRenames) {
  mDir.Write("a/file", "x");
  std::set<std::string> names{"kept"};
  EXPECT_EQ(FileUtil::ListFiles(mDir.Path(), names), 0U);
  EXPECT_EQ(names, (std::set<std::string>{"a", "kept"}));
  EXPECT_EQ(FileUtil::Rename(mDir / "a", mDir / "b"), 0U);
  EXPECT_TRUE(fs::exists(mDir / "b/file"));
  EXPECT_EQ(FileUtil::Rename(mDir / "missing", mDir / "c"), 0U);
  EXPECT_TRUE(mLog.Lines().empty());

  EXPECT_EQ(FileUtil::ListFiles(mDir / "no", names), 1U);
  EXPECT_EQ(FileUtil::Rename("", mDir / "c"), 1U);
  EXPECT_EQ(FileUtil::Rename(mDir / "b", ""), 1U);
  EXPECT_EQ(mLog.Texts(4),
            (Texts{"Can't open directory " + (mDir / "no"), "Invalid file path:",
                   "Failed to rename " + (mDir / "b") + " to  with errno " + std::to_string(ENOENT)}));
}

}  // namespace
}  // namespace vyn::common
