#pragma once

#include "support/test.h"

// A folder of its own for a test, removed with all it holds.

namespace vyn::test {

class TempDir {
 public:
  explicit TempDir(const std::filesystem::path& parent = std::filesystem::temp_directory_path()) {
    std::string name = parent / "vyn-test-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("mkdtemp failed for " + name);
    }
    mPath = name;
  }
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(mPath, ignored);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::string& Path() const { return mPath; }
  /// Returns: the path of `name` in the folder.
  std::string operator/(const std::string& name) const { return mPath + "/" + name; }
  /// Writes a file, with the folders above it. Returns: its path.
  std::string Write(const std::string& name, const std::string& text) const {
    const std::filesystem::path path = *this / name;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
    return path.string();
  }

 private:
  std::string mPath;
};

/// Returns: the content of a file; empty when it cannot be read.
inline std::string ReadFile(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

}  // namespace vyn::test
