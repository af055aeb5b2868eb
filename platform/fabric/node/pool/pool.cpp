#include "platform/fabric/node/pool/pool.h"

#include "platform/fabric/node/pool/file_state.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

namespace vyn::fabric {

namespace {

std::string PathOf(const Namespace& space, std::string_view id) { return space.name + "/" + std::string(id); }

}  // namespace

bool Pool::Open(const std::string& path, const Warn& warn, std::string& error) {
  if (!mFolder.Open(path, error)) {
    return false;
  }
  std::error_code failure;
  for (const auto& entry : std::filesystem::directory_iterator(mFolder.Path(), failure)) {
    const std::string name = entry.path().filename();
    if (name == PoolFolder::kInternal) {
      continue;
    }
    if (!IsNamespaceName(name) || !entry.is_directory(failure)) {
      warn("not of the fabric, left alone: " + entry.path().string());
    } else if (!Adopt(name, warn, error)) {
      Close();
      return false;
    }
  }
  if (failure) {
    error = "cannot read the pool's folder " + path + ": " + failure.message();
    Close();
    return false;
  }
  return true;
}

bool Pool::Adopt(const std::string& name, const Warn& warn, std::string& error) {
  TokenHash token;
  const std::string folder = mFolder.Path() + "/" + name;
  if (!mFolder.ReadToken(name, token)) {
    warn("a folder without a readable token, left alone: " + folder);
    return true;
  }
  const auto space = std::make_shared<Namespace>(name, token);
  sync::WriterLock lock(mMutex);
  sync::MutexLock guard(space->mutex);
  std::error_code failure;
  for (const auto& entry : std::filesystem::directory_iterator(folder, failure)) {
    const std::string id = entry.path().filename();
    if (id == PoolFolder::kTokenFile) {
      continue;
    }
    std::error_code unknown;
    const auto kind = entry.symlink_status(unknown).type();
    if (id[0] == '.' && IsObjectId(id.substr(1)) && kind == std::filesystem::file_type::symlink) {
      if (!std::filesystem::exists(folder + "/" + id.substr(1), unknown)) {
        mFolder.RemoveSize(name, id.substr(1));  // the node was killed while it made or freed the object
      }
      continue;
    }
    if (!IsObjectId(id) || kind != std::filesystem::file_type::regular) {
      warn("not of the fabric, left alone: " + entry.path().string());
      continue;
    }
    if (OwnerOf(id) != mNodeId) {
      error = "the pool's folder " + mFolder.Path() + " holds objects of node " +
              std::to_string(OwnerOf(id)) + ", this is node " + std::to_string(mNodeId);
      return false;
    }
    if (std::uint64_t size = 0; SizeOf(*space, id, warn, size)) {
      space->sizes.emplace(id, size);
      space->charged += Capacity::Charge(size);
    }
  }
  if (failure) {
    error = "cannot read the folder " + folder + ": " + failure.message();
    return false;
  }
  mCapacity.Adopt(space->charged);
  mNamespaces.emplace(name, space);
  return true;
}

bool Pool::SizeOf(const Namespace& space, const std::string& id, const Warn& warn, std::uint64_t& size) {
  const std::string path = mFolder.Path() + "/" + PathOf(space, id);
  struct stat state {};
  if (::lstat(path.c_str(), &state) != 0) {
    warn("cannot be read, left alone: " + path);
    return false;
  }
  const auto length = static_cast<std::uint64_t>(state.st_size);
  const std::uint64_t pages = static_cast<std::uint64_t>(state.st_blocks) * 512;
  const bool known = mFolder.ReadSize(space.name, id, size);
  if (!known) {
    size = length;  // the pool was made by a node that kept no sizes
  }
  if (size > Capacity::kMaxSize || (!known && pages < size) ||
      Capacity::Charge(size) >
          Capacity::kMaxSize - std::min(Capacity::kMaxSize, mCapacity.Used() + space.charged)) {
    warn("larger than what can have been allocated, left alone: " + path);
    return false;
  }
  // A tenant with a writable descriptor may have made its file larger, also while no node was running.
  if (length > size || pages > Capacity::Charge(size)) {
    const bool cut = ::truncate(path.c_str(), static_cast<off_t>(size)) == 0;
    warn("larger than the " + std::to_string(size) + " bytes allocated, " + (cut ? "" : "could not be ") +
         "cut back: " + path);
  }
  if (!known) {
    mFolder.WriteSize(space.name, id, size);
  }
  return true;
}

void Pool::Close() {
  sync::WriterLock lock(mMutex);
  mNamespaces.clear();
  mFolder.Close();
}

int Pool::CreateNamespace(std::string_view name, std::string_view token) {
  if (!IsNamespaceName(name) || token.size() > kMaxTokenLength) {
    return kBmNamespaceInvalid;
  }
  sync::WriterLock lock(mMutex);
  if (const auto found = mNamespaces.find(name); found != mNamespaces.end()) {
    return found->second->token.Matches(token) ? kBmNamespaceExists : -EACCES;
  }
  if (mNamespaces.size() >= kMaxNamespaces) {
    return kBmNotEnoughCapacity;
  }
  auto space = std::make_shared<Namespace>(std::string(name), TokenHash::Of(token));
  if (const int failure = mFolder.MakeNamespace(space->name, space->token); failure != 0) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  mNamespaces.emplace(name, std::move(space));
  return 0;
}

int Pool::DestroyNamespace(const NamespacePtr& space, const std::function<void()>& between) {
  std::string gone;
  std::uint64_t charged = 0;
  {
    sync::WriterLock lock(mMutex);
    sync::MutexLock guard(space->mutex);
    if (space->destroyed) {
      return -ENOENT;
    }
    if (mFolder.HideNamespace(space->name, gone) != 0) {
      return -EIO;
    }
    space->destroyed = true;
    space->sizes.clear();
    space->checksums.clear();
    charged = std::exchange(space->charged, 0);
    mNamespaces.erase(space->name);
  }
  mFolder.DeleteHidden(gone, between);
  mCapacity.Release(charged);
  return 0;
}

NamespacePtr Pool::Find(std::string_view name) const {
  sync::ReaderLock lock(mMutex);
  const auto found = mNamespaces.find(name);
  return found == mNamespaces.end() ? nullptr : found->second;
}

int Pool::Authorize(const Access& access, NamespacePtr& space) const {
  space = Find(access.ns);
  if (space == nullptr) {
    return -ENOENT;
  }
  return space->token.Matches(access.token) ? 0 : -EACCES;
}

net::Descriptor Pool::MakeFile(std::uint64_t size, int& failure) {
  net::Descriptor file;
  failure = RetryAfterReclaim(Capacity::Charge(size), [&] {
    int error = 0;
    file = mFolder.MakeFile(size, error);
    return error;
  });
  return file;
}

int Pool::RetryAfterReclaim(std::uint64_t bytes, const std::function<int()>& attempt) const {
  int failure = attempt();
  for (int tries = Capacity::kTries; failure == ENOSPC && tries > 0 && ReclaimForFiles(bytes); --tries) {
    failure = attempt();
  }
  return failure;
}

bool Pool::ReclaimForFiles(std::uint64_t bytes) const {
  struct statvfs state {};
  while (::fstatvfs(mFolder.Descriptor(), &state) == 0) {
    const std::uint64_t room = state.f_bavail * state.f_frsize;
    const bool files = state.f_files == 0 || state.f_favail > 1;  // 0: no limit; an object needs two
    if (files && room >= bytes) {
      return true;
    }
    // A copy that some process still maps frees no room when it is dropped; the next copy may.
    if (!mCapacity.Reclaim(room >= bytes ? 1 : bytes - room)) {
      return false;
    }
  }
  return false;
}

void Pool::TruncateGrownFiles() {
  for (const NamespacePtr& space : All()) {
    for (const ObjectInfo& info : Objects(space)) {
      struct stat state {};
      const std::string path = PathOf(*space, info.id);
      if (::fstatat(mFolder.Descriptor(), path.c_str(), &state, AT_SYMLINK_NOFOLLOW) != 0 ||
          static_cast<std::uint64_t>(state.st_blocks) * 512 <= Capacity::Charge(info.size)) {
        continue;
      }
      // While Expand works on a file, the file is larger than its object.
      sync::MutexLock one(space->expanding);
      net::Descriptor file;
      std::uint64_t size = 0;
      if (OpenObject(space, info.id, true, file, size) == 0 && ::fstat(file.Get(), &state) == 0 &&
          static_cast<std::uint64_t>(state.st_blocks) * 512 > Capacity::Charge(size)) {
        [[maybe_unused]] const int cut = ::ftruncate(file.Get(), static_cast<off_t>(size));
      }
    }
  }
}

int Pool::Allocate(const NamespacePtr& space, std::uint64_t size, std::string& id) {
  if (size > Capacity::kMaxSize) {
    return kBmNotEnoughCapacity;
  }
  Reservation reservation(mCapacity, Capacity::Charge(size));
  if (!reservation) {
    return kBmNotEnoughCapacity;
  }
  int failure = 0;
  const net::Descriptor file = MakeFile(size, failure);
  if (!file) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  if (!SetUnwritten(file.Get())) {
    return -EIO;
  }
  std::string made = MakeObjectId(mNodeId);
  if (made.empty()) {
    return -EIO;
  }
  bool gone = false;
  failure = RetryAfterReclaim(0, [&] {
    sync::MutexLock lock(space->mutex);
    if (space->destroyed) {
      gone = true;
      return 0;
    }
    int error = mFolder.WriteSize(space->name, made, size);
    if (error == 0 && (error = PoolFolder::Publish(file, mFolder.Descriptor(), PathOf(*space, made))) != 0) {
      mFolder.RemoveSize(space->name, made);
    }
    if (error == 0) {
      space->sizes.emplace(made, size);
      space->charged += Capacity::Charge(size);
    }
    return error;
  });
  if (gone) {
    return -ENOENT;
  }
  if (failure != 0) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  reservation.Commit();
  id = std::move(made);
  return 0;
}

int Pool::Expand(const NamespacePtr& space, std::string_view id, std::uint64_t size) {
  if (size > Capacity::kMaxSize) {
    return kBmNotEnoughCapacity;
  }
  sync::MutexLock one(space->expanding);
  net::Descriptor file;
  std::uint64_t old = 0;
  if (const int result = OpenObject(space, id, true, file, old); result != 0) {
    return result;
  }
  if (size <= old) {
    return size == old ? 0 : kBmLocalError;
  }
  const std::uint64_t more = Capacity::Charge(size) - Capacity::Charge(old);
  Reservation reservation(mCapacity, more);
  if (!reservation) {
    return kBmNotEnoughCapacity;
  }
  int failure = RetryAfterReclaim(more, [&] { return PoolFolder::Reserve(file.Get(), size); });
  if (failure != 0) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  bool gone = false;
  failure = RetryAfterReclaim(0, [&] {
    sync::MutexLock lock(space->mutex);
    const auto found = space->sizes.find(std::string(id));
    if (found == space->sizes.end()) {
      gone = true;  // freed meanwhile
      return 0;
    }
    const int error = mFolder.WriteSize(space->name, found->first, size);
    if (error == 0) {
      found->second = size;
      space->charged += more;
    }
    return error;
  });
  if (gone) {
    return -ENOENT;
  }
  if (failure != 0) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  reservation.Commit();
  return 0;
}

int Pool::Free(const NamespacePtr& space, std::string_view id) {
  net::Descriptor lastReference;  // closed after the lock: the last close frees the pages
  std::uint64_t charge = 0;
  {
    sync::MutexLock lock(space->mutex);
    const auto found = space->sizes.find(std::string(id));
    if (found == space->sizes.end()) {
      return -ENOENT;
    }
    charge = Capacity::Charge(found->second);
    PoolFolder::Remove(mFolder.Descriptor(), PathOf(*space, id), lastReference);
    mFolder.RemoveSize(space->name, found->first);
    space->checksums.erase(found->first);
    space->sizes.erase(found);
    space->charged -= charge;
  }
  lastReference.Close();
  mCapacity.Release(charge);
  return 0;
}

int Pool::Stat(const NamespacePtr& space, std::string_view id, std::uint64_t& size) const {
  sync::MutexLock lock(space->mutex);
  const auto found = space->sizes.find(std::string(id));
  if (found == space->sizes.end()) {
    return -ENOENT;
  }
  size = found->second;
  return 0;
}

std::vector<std::uint64_t> Pool::Sizes(std::string_view ns, const std::vector<std::string>& ids) const {
  std::vector<std::uint64_t> sizes(ids.size(), kNoObject);
  if (const NamespacePtr space = Find(ns); space != nullptr) {
    sync::MutexLock lock(space->mutex);
    for (std::size_t index = 0; index < ids.size(); ++index) {
      const auto found = space->sizes.find(ids[index]);
      sizes[index] = found == space->sizes.end() ? kNoObject : found->second;
    }
  }
  return sizes;
}

int Pool::OpenObject(const NamespacePtr& space, std::string_view id, bool writable, net::Descriptor& file,
                     std::uint64_t& size) const {
  if (const int result = Stat(space, id, size); result != 0) {
    return result;
  }
  file.Reset(::openat(mFolder.Descriptor(), PathOf(*space, id).c_str(),
                      (writable ? O_RDWR : O_RDONLY) | O_NOFOLLOW | O_CLOEXEC));
  if (!file) {
    return errno == ENOENT ? -ENOENT : -EIO;  // freed meanwhile
  }
  return !writable || NewStamp(file.Get()) ? 0 : -EIO;
}

std::vector<bool> Pool::Exist(const std::vector<std::string>& ids) const {
  std::vector<bool> exist(ids.size());
  for (const NamespacePtr& space : All()) {
    sync::MutexLock lock(space->mutex);
    for (std::size_t index = 0; index < ids.size(); ++index) {
      exist[index] = exist[index] || space->sizes.count(ids[index]) > 0;
    }
  }
  return exist;
}

std::vector<NamespacePtr> Pool::All() const {
  std::vector<NamespacePtr> all;
  sync::ReaderLock lock(mMutex);
  for (const auto& [name, space] : mNamespaces) {
    all.push_back(space);
  }
  return all;
}

std::vector<NamespaceInfo> Pool::Namespaces() const {
  std::vector<NamespaceInfo> infos;
  for (const NamespacePtr& space : All()) {
    sync::MutexLock lock(space->mutex);
    infos.push_back({space->name, space->sizes.size(), space->charged});
  }
  return infos;
}

std::vector<ObjectInfo> Pool::Objects(const NamespacePtr& space) {
  std::vector<ObjectInfo> infos;
  sync::MutexLock lock(space->mutex);
  for (const auto& [id, size] : space->sizes) {
    infos.push_back({id, size});
  }
  return infos;
}

std::uint64_t Pool::ObjectCount() const {
  std::uint64_t count = 0;
  for (const NamespacePtr& space : All()) {
    sync::MutexLock lock(space->mutex);
    count += space->sizes.size();
  }
  return count;
}

}  // namespace vyn::fabric
