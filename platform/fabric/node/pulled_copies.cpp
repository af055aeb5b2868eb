#include "platform/fabric/node/pulled_copies.h"

#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>

namespace vyn::fabric {

namespace {

/// What a caller must present to be served while the owner cannot be reached; its hash is kept.
std::string RightOf(const Access& access) {
  return std::string(access.ns) + '\0' + std::string(access.token);
}

}  // namespace

int PulledCopies::Open(const ObjectName& object, const std::function<bool()>& callerWaits,
                       net::Descriptor& file, std::uint64_t& size) {
  const std::string id(object.id);
  const std::string right = RightOf(object.access);
  const auto owner = mNeighbours.Find(OwnerOf(id));
  const int ownerResult = owner == nullptr ? kBmUnconnected : owner->Stat(object, size);
  net::Descriptor lastReference;
  std::unique_lock lock(mMutex);
  if (ownerResult != 0) {
    const auto found = mCopies.find(id);
    if (found != mCopies.end() && found->second->ready && found->second->right.Matches(right)) {
      if (ownerResult == kBmUnconnected && OpenCopy(id, *found->second, file, size)) {
        return 0;
      }
      if (ownerResult == -ENOENT) {
        Remove(id, lastReference);
      }
    }
    return ownerResult;
  }
  const std::uint64_t wanted = size;
  for (;;) {
    const auto found = mCopies.find(id);
    if (found == mCopies.end()) {
      auto copy = std::make_shared<Copy>();
      mCopies.emplace(id, copy);
      lock.unlock();
      int result = -EIO;
      try {
        result = Pull(*owner, object, wanted, callerWaits);
      } catch (const std::exception&) {
        // Out of memory: the callers that wait for this copy get -EIO.
      }
      lock.lock();
      copy->result = result;
      if (result == 0) {
        copy->size = wanted;
        copy->ns = object.access.ns;
        copy->right = TokenHash::Of(right);
        copy->use = mUses.insert(mUses.begin(), id);
        copy->ready = true;
        mBytes += Capacity::Charge(wanted);
        ++mPulls;
      } else {
        mCopies.erase(id);
      }
      mChanged.notify_all();
      if (result != 0) {
        return result;
      }
      continue;
    }
    const CopyPtr copy = found->second;
    if (!copy->ready) {
      mChanged.wait_for(lock, kProgressInterval / 2);
      if (copy->result != 0) {
        return copy->result;
      }
      if (!copy->ready) {
        lock.unlock();
        if (!callerWaits()) {
          return kBmUnconnected;
        }
        lock.lock();
      }
      continue;
    }
    // Pull again when the original was made larger since, or when somebody removed the file of the copy.
    if (copy->size == wanted && OpenCopy(id, *copy, file, size)) {
      if (!copy->right.Matches(right)) {
        copy->right = TokenHash::Of(right);
      }
      mUses.splice(mUses.begin(), mUses, copy->use);
      return 0;
    }
    Remove(id, lastReference);
  }
}

bool PulledCopies::OpenCopy(const std::string& id, const Copy& copy, net::Descriptor& file,
                            std::uint64_t& size) const {
  file.Reset(::openat(mPool.Folder().Internal(), id.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  size = copy.size;
  return static_cast<bool>(file);
}

int PulledCopies::Pull(RemoteNode& owner, const ObjectName& object, std::uint64_t size,
                       const std::function<bool()>& callerWaits) {
  Reservation reservation(mPool.Bytes(), size > Capacity::kMaxSize ? size : Capacity::Charge(size));
  if (!reservation) {
    return kBmNotEnoughCapacity;
  }
  int failure = 0;
  const net::Descriptor file = mPool.MakeFile(size, failure);
  if (!file) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  std::vector<char> buffer(kFileBlock);
  const int result =
      owner.Read(object, 0, size, [&](Channel& channel, std::uint64_t position, std::uint32_t length) {
        callerWaits();
        while (length > 0) {
          const auto count = std::min<std::uint32_t>(length, kFileBlock);
          const net::IoStatus status = channel.ReadData(buffer.data(), count, kAnswerTimeout);
          if (status != net::IoStatus::kOk) {
            return status;
          }
          if (mStopping || !WriteFile(file.Get(), buffer.data(), count, position)) {
            return net::IoStatus::kFailed;
          }
          position += count;
          length -= count;
        }
        return net::IoStatus::kOk;
      });
  if (result != 0) {
    return result == kBmLocalError ? -EIO : result;
  }
  // So that no process of this user opens it for writing by accident, not even through the descriptor that a
  // client receives.
  ::fchmod(file.Get(), 0400);
  if (PoolFolder::Publish(file, mPool.Folder().Internal(), std::string(object.id)) != 0) {
    return -EIO;
  }
  reservation.Commit();
  return 0;
}

void PulledCopies::Remove(const std::string& id, net::Descriptor& lastReference) {
  const auto found = mCopies.find(id);
  const std::uint64_t charge = Capacity::Charge(found->second->size);
  PoolFolder::Remove(mPool.Folder().Internal(), id, lastReference);
  mUses.erase(found->second->use);
  mCopies.erase(found);
  mBytes -= charge;
  mPool.Bytes().Release(charge);
}

void PulledCopies::Drop(std::string_view id) {
  net::Descriptor lastReference;
  std::lock_guard lock(mMutex);
  const auto found = mCopies.find(std::string(id));
  if (found != mCopies.end() && found->second->ready) {
    Remove(found->first, lastReference);
  }
}

void PulledCopies::DropNamespace(std::string_view ns) {
  std::vector<std::string> ids;
  {
    std::lock_guard lock(mMutex);
    for (const auto& [id, copy] : mCopies) {
      if (copy->ready && copy->ns == ns) {
        ids.push_back(id);
      }
    }
  }
  for (const std::string& id : ids) {
    Drop(id);
  }
}

bool PulledCopies::Reclaim(std::uint64_t bytes) {
  for (std::uint64_t freed = 0; freed < bytes;) {
    net::Descriptor lastReference;
    std::lock_guard lock(mMutex);
    if (mBytes < bytes - freed) {
      return false;  // all copies together are too few, so none is dropped
    }
    const std::string id = mUses.back();
    freed += Capacity::Charge(mCopies.at(id)->size);
    Remove(id, lastReference);
  }
  return true;
}

void PulledCopies::Sweep() {
  std::map<std::uint16_t, std::vector<std::string>> byOwner;
  {
    std::lock_guard lock(mMutex);
    for (const std::string& id : mUses) {
      byOwner[OwnerOf(id)].push_back(id);
    }
  }
  for (auto& [ownerId, ids] : byOwner) {
    const auto owner = mNeighbours.Find(ownerId);
    while (owner != nullptr && !ids.empty() && !mStopping) {
      const std::size_t count = std::min<std::size_t>(ids.size(), kMaxIdsPerFrame);
      const std::vector<std::string> some(ids.end() - static_cast<std::ptrdiff_t>(count), ids.end());
      ids.resize(ids.size() - count);
      std::vector<bool> exist;
      if (owner->Exist(some, exist) != 0) {
        break;
      }
      for (std::size_t index = 0; index < some.size(); ++index) {
        if (!exist[index]) {
          Drop(some[index]);
        }
      }
    }
  }
}

PulledCopies::Totals PulledCopies::Count() const {
  std::lock_guard lock(mMutex);
  return {mUses.size(), mBytes, mPulls};
}

}  // namespace vyn::fabric
