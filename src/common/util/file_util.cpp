#include "common/util/file_util.h"

#include "common/log/logging.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>

namespace vyn::common {

namespace {

constexpr std::size_t kMaxPathLength = 4095;

struct DirCloser {
  void operator()(DIR* dir) const { ::closedir(dir); }
};
using Directory = std::unique_ptr<DIR, DirCloser>;

bool IsAllowedCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-' ||
         c == '/';
}

/// Resolves the path. On failure calls `complain` with the text of the error.
template <typename Complain>
unsigned int Resolve(const std::string& path, std::string& out, const Complain& complain) {
  if (!FileUtil::IsPathValid(path)) {
    complain("Invalid path:");
    return VYN_ERR_GENERIC;
  }
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(path.c_str(), nullptr), &std::free);
  if (resolved == nullptr) {
    complain("Failed to get real path:");
    return VYN_ERR_GENERIC;
  }
  out = resolved.get();
  return VYN_OK;
}

bool PrintIfInvalid(const std::string& path) {
  if (FileUtil::IsPathValid(path)) {
    return false;
  }
  std::cout << "Invalid path:" << path << std::endl;
  return true;
}

/// Calls `take` with the name of every entry but "." and "..".
template <typename Take>
void ForEachEntry(DIR* dir, const Take& take) {
  while (const dirent* entry = ::readdir(dir)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      take(entry->d_name);
    }
  }
}

/// Opens a directory. Returns: null when `path` is a symbolic link or cannot be opened.
Directory OpenWithoutFollowing(const std::string& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (descriptor < 0) {
    return nullptr;
  }
  Directory dir(::fdopendir(descriptor));
  if (dir == nullptr) {
    ::close(descriptor);
  }
  return dir;
}

bool HasType(const std::string& path, mode_t type) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == type;
}

unsigned int RenameLogged(const std::string& from, const std::string& to) {
  if (std::rename(from.c_str(), to.c_str()) != 0) {
    const int error = errno;
    VYN_LOG_ERROR("Failed to rename " << from << " to " << to << " with errno " << error);
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

/// Returns: the path of the parent directory; empty for a name without "/" and for an entry of "/".
std::string ParentOf(const std::string& path) {
  const auto lastOfName = path.find_last_not_of('/');
  const auto slash = lastOfName == std::string::npos ? lastOfName : path.rfind('/', lastOfName);
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

}  // namespace

bool FileUtil::IsPathValid(const std::string& path) {
  return !path.empty() && std::strlen(path.c_str()) <= kMaxPathLength;
}

bool FileUtil::IsPathValidWhiteList(const std::string& path) {
  return IsPathValid(path) && std::all_of(path.begin(), path.end(), IsAllowedCharacter);
}

bool FileUtil::IsPathExist(const std::string& path) {
  return IsPathValid(path) && ::access(path.c_str(), F_OK) == 0;
}

bool FileUtil::IsPathWriteableAndReadable(const std::string& path) {
  return ::access(path.c_str(), R_OK | W_OK) == 0;
}

unsigned int FileUtil::RealPath(const std::string& path, std::string& out) {
  return Resolve(path, out, [&](const char* text) { VYN_LOG_ERROR(text << path); });
}

unsigned int FileUtil::RealPathNoLog(const std::string& path, std::string& out) {
  return Resolve(path, out, [&](const char* text) { std::cout << text << path << std::endl; });
}

unsigned int FileUtil::CreatePath(const std::string& path, unsigned int mode) {
  if (PrintIfInvalid(path)) {
    return VYN_ERR_GENERIC;
  }
  if (IsPathExist(path)) {
    return VYN_OK;
  }
  return ::mkdir(path.c_str(), mode) == 0 ? VYN_OK : VYN_ERR_GENERIC;
}

unsigned int FileUtil::RecursiveCreatePath(const std::string& path, unsigned int mode) {
  if (PrintIfInvalid(path)) {
    return VYN_ERR_GENERIC;
  }
  if (IsPathExist(path)) {
    return VYN_OK;
  }
  std::string parent;
  bool formed = true;
  try {
    parent = ParentOf(path);
  } catch (const std::exception&) {
    formed = false;
  }
  if (!parent.empty() && !IsPathExist(parent)) {
    const unsigned int status = RecursiveCreatePath(parent, mode);
    if (Failed(status)) {
      return status;
    }
  }
  if (!formed || ::mkdir(path.c_str(), mode) != 0) {
    std::cout << "Mkdir path error: " << path << std::endl;
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

unsigned int FileUtil::DeletePath(const std::string& path) {
  if (PrintIfInvalid(path)) {
    return VYN_ERR_GENERIC;
  }
  if (!IsPathExist(path)) {
    return VYN_OK;
  }
  return std::remove(path.c_str()) == 0 ? VYN_OK : VYN_ERR_GENERIC;
}

unsigned int FileUtil::RecursiveDeletePath(const std::string& path) {
  if (!IsPathValid(path)) {
    VYN_LOG_ERROR("Invalid path:" << path);
    return VYN_ERR_GENERIC;
  }
  if (!IsPathExist(path) && !HasType(path, S_IFLNK)) {
    return VYN_OK;
  }
  const std::string doomed = path + "_deleted";
  if (Failed(RenameLogged(path, doomed))) {
    return VYN_ERR_GENERIC;
  }
  Directory dir = OpenWithoutFollowing(doomed);
  if (dir == nullptr && !HasType(doomed, S_IFLNK)) {
    VYN_LOG_ERROR("Can't open directory " << doomed);
    return VYN_ERR_GENERIC;
  }
  if (dir != nullptr) {
    ForEachEntry(dir.get(), [&](const char* name) {
      const std::string child = doomed + "/" + name;
      if (HasType(child, S_IFDIR)) {
        RecursiveDeletePath(child);
      }
      std::remove(child.c_str());
    });
    dir.reset();
  }
  std::remove(doomed.c_str());
  return VYN_OK;
}

unsigned int FileUtil::ListFiles(const std::string& dir, std::set<std::string>& names) {
  const Directory opened(::opendir(dir.c_str()));
  if (opened == nullptr) {
    VYN_LOG_ERROR("Can't open directory " << dir);
    return VYN_ERR_GENERIC;
  }
  ForEachEntry(opened.get(), [&](const char* name) { names.insert(name); });
  return VYN_OK;
}

unsigned int FileUtil::Rename(const std::string& from, const std::string& to) {
  if (!IsPathValid(from)) {
    VYN_LOG_ERROR("Invalid file path:" << from);
    return VYN_ERR_GENERIC;
  }
  if (!IsPathExist(from)) {
    return VYN_OK;
  }
  return RenameLogged(from, to);
}

}  // namespace vyn::common
