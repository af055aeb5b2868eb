#include "platform/fabric/node/pool/pool_folder.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

namespace vyn::fabric {

namespace {

std::string ErrorText(const std::string& what) { return what + ": " + std::strerror(errno); }

std::string SizePath(const std::string& space, const std::string& id) { return space + "/." + id; }

}  // namespace

bool PoolFolder::Open(const std::string& path, std::string& error) {
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) {
    error = ErrorText("cannot make the pool's folder " + path);
    return false;
  }
  const std::unique_ptr<char, void (*)(void*)> real(::realpath(path.c_str(), nullptr), ::free);
  mFolder.Reset(real == nullptr ? -1 : ::open(real.get(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  struct stat state {};
  if (!mFolder || ::fstat(mFolder.Get(), &state) != 0) {
    error = ErrorText("cannot open the pool's folder " + path);
  } else if (state.st_uid != ::geteuid()) {
    error = "the pool's folder " + path + " belongs to another user";
  } else if (::flock(mFolder.Get(), LOCK_EX | LOCK_NB) != 0) {
    error = errno == EWOULDBLOCK ? "another fabric node holds the pool's folder " + path
                                 : ErrorText("cannot lock the pool's folder " + path);
  } else {
    mPath = real.get();
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(mPath) / kInternal, ignored);
    if (::fchmod(mFolder.Get(), 0700) != 0 || ::mkdirat(mFolder.Get(), kInternal, 0700) != 0) {
      error = ErrorText("cannot prepare the pool's folder " + path);
    } else {
      mInternal.Reset(::openat(mFolder.Get(), kInternal, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      int failure = 0;
      // A file system that cannot serve is refused here and not at the first allocation.
      if (mInternal && MakeFile(1, failure)) {
        return true;
      }
      error = "the file system of the pool's folder " + path +
              " has no room or no files without a name: " + std::strerror(failure);
      ::unlinkat(mFolder.Get(), kInternal, AT_REMOVEDIR);
    }
  }
  mInternal.Close();
  mFolder.Close();
  return false;
}

void PoolFolder::Close() {
  if (mFolder) {
    std::error_code ignored;
    std::filesystem::remove_all(std::filesystem::path(mPath) / kInternal, ignored);
  }
  mInternal.Close();
  mFolder.Close();
}

net::Descriptor PoolFolder::MakeFile(std::uint64_t size, int& error) const {
  net::Descriptor file(::openat(mFolder.Get(), ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
  error = file ? Reserve(file.Get(), size) : errno;
  return error == 0 ? std::move(file) : net::Descriptor();
}

int PoolFolder::Reserve(int file, std::uint64_t size) {
  if (size == 0) {
    return 0;
  }
  // A signal, for example from a debugger, makes the kernel undo its work and return EINTR.
  while (::fallocate(file, 0, 0, static_cast<off_t>(size)) != 0) {
    if (errno != EINTR) {
      return errno;
    }
  }
  return 0;
}

int PoolFolder::Publish(const net::Descriptor& file, int folder, const std::string& name) {
  const std::string path = "/proc/self/fd/" + std::to_string(file.Get());
  return ::linkat(AT_FDCWD, path.c_str(), folder, name.c_str(), AT_SYMLINK_FOLLOW) == 0 ? 0 : errno;
}

void PoolFolder::Remove(int folder, const std::string& name, net::Descriptor& lastReference) {
  lastReference.Reset(::openat(folder, name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  ::unlinkat(folder, name.c_str(), 0);
}

std::string PoolFolder::UniqueName(const char* prefix) { return prefix + std::to_string(++mCount); }

int PoolFolder::WriteSize(const std::string& space, const std::string& id, std::uint64_t size) {
  const std::string staged = UniqueName("size");
  if (::symlinkat(std::to_string(size).c_str(), mInternal.Get(), staged.c_str()) != 0) {
    return errno;
  }
  if (::renameat(mInternal.Get(), staged.c_str(), mFolder.Get(), SizePath(space, id).c_str()) == 0) {
    return 0;
  }
  const int failure = errno;
  ::unlinkat(mInternal.Get(), staged.c_str(), 0);
  return failure;
}

bool PoolFolder::ReadSize(const std::string& space, const std::string& id, std::uint64_t& size) const {
  char text[24];
  const ssize_t length = ::readlinkat(mFolder.Get(), SizePath(space, id).c_str(), text, sizeof(text));
  const auto [end, error] = std::from_chars(text, text + std::max<ssize_t>(length, 0), size);
  return error == std::errc() && end == text + length;
}

void PoolFolder::RemoveSize(const std::string& space, const std::string& id) const {
  ::unlinkat(mFolder.Get(), SizePath(space, id).c_str(), 0);
}

int PoolFolder::MakeNamespace(const std::string& name, const TokenHash& token) {
  const std::string staged = UniqueName("new");
  if (::mkdirat(mInternal.Get(), staged.c_str(), 0700) != 0) {
    return errno;
  }
  const auto& bytes = token.Stored();
  const net::Descriptor file(::openat(mInternal.Get(), (staged + "/" + kTokenFile).c_str(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600));
  if (file) {
    errno = ENOSPC;  // for a short write
  }
  const bool written =
      file && ::write(file.Get(), bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
  if (written &&
      ::renameat2(mInternal.Get(), staged.c_str(), mFolder.Get(), name.c_str(), RENAME_NOREPLACE) == 0) {
    return 0;
  }
  const int failure = errno;
  DeleteHidden(staged);
  return failure;
}

int PoolFolder::HideNamespace(const std::string& name, std::string& hidden) {
  hidden = UniqueName("gone");
  return ::renameat(mFolder.Get(), name.c_str(), mInternal.Get(), hidden.c_str()) == 0 ? 0 : errno;
}

void PoolFolder::DeleteHidden(const std::string& hidden, const std::function<void()>& between) const {
  std::error_code ignored;
  const std::filesystem::path folder = std::filesystem::path(mPath) / kInternal / hidden;
  if (between != nullptr) {
    for (std::filesystem::directory_iterator file(folder, ignored), end; !ignored && file != end;
         file.increment(ignored)) {
      ::unlink(file->path().c_str());
      between();
    }
  }
  std::filesystem::remove_all(folder, ignored);
}

bool PoolFolder::ReadToken(const std::string& name, TokenHash& token) const {
  const net::Descriptor file(
      ::openat(mFolder.Get(), (name + "/" + kTokenFile).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  TokenHash::Bytes bytes;
  if (!file || ::read(file.Get(), bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
    return false;
  }
  token = TokenHash(bytes);
  return true;
}

}  // namespace vyn::fabric
