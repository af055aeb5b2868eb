#include "platform/fabric/node/pulled_copies.h"

#include "platform/fabric/node/pool/file_state.h"
#include "platform/fabric/protocol/checksum.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/file_io.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <map>

namespace vyn::fabric {

namespace {

/// Namespace and token as one text. A copy keeps its hash, to check callers while the owner cannot be
/// reached.
std::string RightOf(const Access& access) {
  return std::string(access.ns) + '\0' + std::string(access.token);
}

/// Whether the object had all its bytes when a copy was made of it.
bool WasFinished(const ObjectState& state) { return !state.beingWritten && state.stamp != kUnwrittenStamp; }

}  // namespace

int PulledCopies::Open(const ObjectName& object, const std::function<bool()>& callerWaits,
                       net::Descriptor& file, std::uint64_t& size) {
  const std::string id(object.id);
  const std::string right = RightOf(object.access);
  const auto owner = mNeighbours.Find(OwnerOf(id));
  ObjectState state;
  const int ownerResult = owner == nullptr ? kBmUnconnected : owner->State(object, false, state);
  net::Descriptor lastReference;
  sync::MutexLock lock(mMutex);
  if (ownerResult != 0) {
    const auto found = mCopies.find(id);
    if (found != mCopies.end() && found->second->ready && found->second->right.Matches(right)) {
      if (ownerResult == kBmUnconnected && WasFinished(found->second->state) &&
          OpenCopy(id, *found->second, file, size)) {
        return 0;
      }
      if (ownerResult == -ENOENT) {
        Remove(id, lastReference);
      }
    }
    return ownerResult;
  }
  const std::uint64_t pullsBefore = mPullsBegun;
  for (;;) {
    const auto found = mCopies.find(id);
    if (found == mCopies.end()) {
      // All memory that the copy needs is taken first: after a pull nothing may fail, or the copy would stay
      // in mCopies without being ready, and its readers would wait for ever.
      auto copy = std::make_shared<Copy>();
      copy->begun = ++mPullsBegun;
      copy->ns = object.access.ns;
      copy->right = TokenHash::Of(right);
      std::list<std::string> use{id};
      mCopies.emplace(id, copy);
      lock.Unlock();
      int result = -EIO;
      try {
        result = Pull(*owner, object, state, callerWaits);
      } catch (const std::exception&) {
        // Out of memory: the callers that wait for this copy get -EIO.
      }
      lock.Lock();
      copy->result = result;
      if (result == 0) {
        copy->state = state;
        copy->use = use.begin();
        mUses.splice(mUses.begin(), use);
        copy->ready = true;
        mBytes += Capacity::Charge(state.size);
        ++mPulls;
      } else {
        mCopies.erase(id);
      }
      mChanged.NotifyAll();
      if (result != 0) {
        return result;
      }
      continue;
    }
    const CopyPtr copy = found->second;
    if (!copy->ready) {
      mChanged.WaitFor(lock, kProgressInterval / 2);
      if (copy->result != 0) {
        return copy->result;
      }
      if (!copy->ready) {
        lock.Unlock();
        if (!callerWaits()) {
          return kBmUnconnected;
        }
        lock.Lock();
      }
      continue;
    }
    // The bytes of a pull that began after this call are new enough, whatever happened since.
    bool same = copy->begun > pullsBefore;
    if (!same) {
      const ObjectState held = copy->state;
      lock.Unlock();
      const int result = Compare(*owner, object, held, state, same);
      lock.Lock();
      if (result != 0) {
        return result;
      }
      const auto still = mCopies.find(id);
      if (still == mCopies.end() || still->second != copy) {
        continue;  // dropped meanwhile
      }
      if (same) {
        copy->state = state;
      }
    }
    // Pull again also when somebody removed the file of the copy.
    if (same && OpenCopy(id, *copy, file, size)) {
      if (!copy->right.Matches(right)) {
        copy->right = TokenHash::Of(right);
      }
      mUses.splice(mUses.begin(), mUses, copy->use);
      return 0;
    }
    Remove(id, lastReference);
  }
}

int PulledCopies::StateOfCopy(const ObjectName& object, const std::function<bool()>& between,
                              ObjectState& state) const {
  const std::string id(object.id);
  net::Descriptor file;
  {
    sync::MutexLock lock(mMutex);
    const auto found = mCopies.find(id);
    if (found == mCopies.end() || !found->second->ready ||
        !found->second->right.Matches(RightOf(object.access)) ||
        !OpenCopy(id, *found->second, file, state.size)) {
      return -ENOENT;
    }
    state = found->second->state;
  }
  return ChecksumOf(file.Get(), state.size, between, state.checksum) ? 0 : -EIO;
}

int PulledCopies::Compare(RemoteNode& owner, const ObjectName& object, const ObjectState& copy,
                          ObjectState& state, bool& same) {
  same = false;
  if (copy.size != state.size) {
    return 0;
  }
  if (!copy.beingWritten && !state.beingWritten && copy.stamp == state.stamp) {
    state.checksum = copy.checksum;
    same = true;
    return 0;
  }
  const int result = owner.State(object, true, state);
  same = result == 0 && copy.size == state.size && copy.checksum == state.checksum;
  return result;
}

bool PulledCopies::OpenCopy(const std::string& id, const Copy& copy, net::Descriptor& file,
                            std::uint64_t& size) const {
  file.Reset(::openat(mPool.Folder().Internal(), id.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  size = copy.state.size;
  return static_cast<bool>(file);
}

int PulledCopies::Pull(RemoteNode& owner, const ObjectName& object, ObjectState& state,
                       const std::function<bool()>& callerWaits) {
  const std::uint64_t size = state.size;
  Reservation reservation(mPool.Bytes(), size > Capacity::kMaxSize ? size : Capacity::Charge(size));
  if (!reservation) {
    return kBmNotEnoughCapacity;
  }
  int failure = 0;
  const net::Descriptor file = mPool.MakeFile(size, failure);
  if (!file) {
    return failure == ENOSPC ? kBmNotEnoughCapacity : -EIO;
  }
  int changes = 3;
  for (int tries = 2;;) {
    std::uint64_t checksum = 0;
    int result = Fetch(owner, object, size, file.Get(), callerWaits, checksum);
    const ObjectState before = state;
    if (result == 0) {
      result = owner.State(object, true, state, [&callerWaits] { return callerWaits(), true; });
    }
    if (result != 0) {
      return result;
    }
    if (state.checksum == checksum && state.size == size) {
      break;
    }
    const bool changing = state.beingWritten || before.beingWritten || state.stamp != before.stamp;
    if (changing && --changes > 0) {
      continue;  // the bytes may have changed during the pull, and may not do so again
    }
    if (changing) {
      // The caller came while the bytes changed. The next caller compares them again.
      state.size = size;
      state.checksum = checksum;
      state.beingWritten = true;
      break;
    }
    const bool again = --tries > 0;
    if (mWarn != nullptr) {
      mWarn("block " + std::string(object.id) + " of node " + std::to_string(OwnerOf(object.id)) +
            " arrived with a wrong checksum" + (again ? ", it is pulled once more" : " twice"));
    }
    if (!again) {
      return -EBADMSG;
    }
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

int PulledCopies::Fetch(RemoteNode& owner, const ObjectName& object, std::uint64_t size, int file,
                        const std::function<bool()>& callerWaits, std::uint64_t& checksum) {
  Checksum arrived;
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
          arrived.Add(buffer.data(), count);
          if (mStopping || !WriteFile(file, buffer.data(), count, position)) {
            return net::IoStatus::kFailed;
          }
          position += count;
          length -= count;
        }
        return net::IoStatus::kOk;
      });
  checksum = arrived.Value();
  if (result != 0 && mStopping) {
    return kBmUnconnected;  // the caller can repeat the call when this node runs again
  }
  return result == kBmLocalError ? -EIO : result;
}

void PulledCopies::Remove(const std::string& id, net::Descriptor& lastReference) {
  const auto found = mCopies.find(id);
  const std::uint64_t charge = Capacity::Charge(found->second->state.size);
  PoolFolder::Remove(mPool.Folder().Internal(), id, lastReference);
  mUses.erase(found->second->use);
  mCopies.erase(found);
  mBytes -= charge;
  mPool.Bytes().Release(charge);
}

void PulledCopies::Drop(std::string_view id) {
  net::Descriptor lastReference;
  sync::MutexLock lock(mMutex);
  const auto found = mCopies.find(std::string(id));
  if (found != mCopies.end() && found->second->ready) {
    Remove(found->first, lastReference);
  }
}

void PulledCopies::DropNamespace(std::string_view ns) {
  std::vector<std::string> ids;
  {
    sync::MutexLock lock(mMutex);
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
    sync::MutexLock lock(mMutex);
    if (mBytes < bytes - freed) {
      return false;  // all copies together are too few, so none is dropped
    }
    const std::string id = mUses.back();
    freed += Capacity::Charge(mCopies.at(id)->state.size);
    Remove(id, lastReference);
  }
  return true;
}

void PulledCopies::Sweep(const std::function<bool()>& stopping) {
  std::map<std::uint16_t, std::vector<std::string>> byOwner;
  {
    sync::MutexLock lock(mMutex);
    for (const std::string& id : mUses) {
      byOwner[OwnerOf(id)].push_back(id);
    }
  }
  for (auto& [ownerId, ids] : byOwner) {
    const auto owner = mNeighbours.Find(ownerId);
    while (owner != nullptr && !ids.empty() && !stopping()) {
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
  sync::MutexLock lock(mMutex);
  return {mUses.size(), mBytes, mPulls};
}

}  // namespace vyn::fabric
