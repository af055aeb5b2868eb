#pragma once

// The objects that this node owns: namespaces with their tokens, and the files in them.
//
// The folder is authoritative; Open builds the tables here from it, and each change updates both.
// Threads: any, between Open and Close. No lock is held while pages are reserved or freed, with one
// exception: Namespace::expanding.
//
// Results are those of protocol/results.h, and -EIO when an operation on the pool's folder failed.

#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/node/pool/capacity.h"
#include "platform/fabric/node/pool/pool_folder.h"
#include "platform/fabric/protocol/remote_node.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vyn::fabric {

/// A namespace of the pool. Held by shared pointers: it may be destroyed while a call still works in it.
struct Namespace {
  const std::string name;
  const TokenHash token;

  sync::Mutex mutex;
  bool destroyed VYN_GUARDED_BY(mutex) = false;
  /// Of the objects, in bytes, by id.
  std::unordered_map<std::string, std::uint64_t> sizes VYN_GUARDED_BY(mutex);
  struct Known {
    std::uint64_t stamp;
    std::uint64_t checksum;
  };
  /// Of objects that nobody wrote since the stamp.
  std::unordered_map<std::string, Known> checksums VYN_GUARDED_BY(mutex);
  std::uint64_t charged VYN_GUARDED_BY(mutex) = 0;  // bytes of quota that the objects use
  /// Held while an object of this namespace is made larger, so that one call at a time does that. Taken
  /// before `mutex`.
  sync::Mutex expanding;

  Namespace(std::string theName, const TokenHash& theToken) : name(std::move(theName)), token(theToken) {}
};

using NamespacePtr = std::shared_ptr<Namespace>;

class Pool {
 public:
  using Warn = std::function<void(const std::string&)>;

  Pool(std::uint16_t nodeId, std::uint64_t capacity) : mNodeId(nodeId), mCapacity(capacity) {}

  /// Opens the folder and adopts the namespaces and objects in it, each object at its allocated size. \param
  /// warn receives a line about each file that was truncated to that size, and about each that was ignored.
  bool Open(const std::string& path, const Warn& warn, std::string& error);
  void Close();

  /// Beyond this number CreateNamespace returns kBmNotEnoughCapacity.
  static constexpr std::size_t kMaxNamespaces = 1U << 16U;

  /// -EACCES, kBmNamespaceExists, kBmNamespaceInvalid as in protocol/results.h.
  int CreateNamespace(std::string_view name, std::string_view token);
  /// \param between called after every object that is freed; may be null.
  int DestroyNamespace(const NamespacePtr& space, const std::function<void()>& between = nullptr);
  /// Finds a namespace without checking a token. Returns: null when there is none.
  NamespacePtr Find(std::string_view name) const;
  /// Finds a namespace and checks its token. Returns: 0, -ENOENT, -EACCES.
  int Authorize(const Access& access, NamespacePtr& space) const;

  int Allocate(const NamespacePtr& space, std::uint64_t size, std::string& id);
  /// Makes a file without a name in the pool's file system, with `size` bytes reserved. When the file system
  /// is full, pulled copies are dropped if that gives enough room. \param failure errno.
  net::Descriptor MakeFile(std::uint64_t size, int& failure);
  /// Truncates files to their objects' sizes: a client with a writable descriptor can make a file larger,
  /// past the quota.
  void TruncateGrownFiles();
  /// `size` is the new size. One below the present size is kBmLocalError.
  int Expand(const NamespacePtr& space, std::string_view id, std::uint64_t size);
  int Free(const NamespacePtr& space, std::string_view id);
  int Stat(const NamespacePtr& space, std::string_view id, std::uint64_t& size) const;
  /// For each object its size, or kNoObject when the namespace does not have it.
  std::vector<std::uint64_t> Sizes(std::string_view ns, const std::vector<std::string>& ids) const;
  /// Called after every block of a file that is read; false ends the reading.
  using Between = std::function<bool()>;
  /// \param between null: the checksum is not computed. Returns also -EIO, when the file cannot be read.
  int State(const NamespacePtr& space, std::string_view id, const Between& between, ObjectState& state) const;
  /// Opens an object's file. One that is opened for writing gets a new stamp (ObjectState).
  int OpenObject(const NamespacePtr& space, std::string_view id, bool writable, net::Descriptor& file,
                 std::uint64_t& size) const;
  /// For each object whether any namespace has it.
  std::vector<bool> Exist(const std::vector<std::string>& ids) const;

  std::vector<NamespaceInfo> Namespaces() const;
  static std::vector<ObjectInfo> Objects(const NamespacePtr& space);
  std::uint64_t ObjectCount() const;

  Capacity& Bytes() { return mCapacity; }
  const Capacity& Bytes() const { return mCapacity; }
  PoolFolder& Folder() { return mFolder; }

 private:
  bool Adopt(const std::string& name, const Warn& warn, std::string& error);
  /// The size of an object that is adopted. Returns: false when the file cannot be an object of this pool.
  bool SizeOf(const Namespace& space, const std::string& id, const Warn& warn, std::uint64_t& size)
      VYN_REQUIRES(space.mutex);
  /// Drops pulled copies until the file system has room for an object of `bytes`. A copy that some process
  /// maps frees no room, so that all may be dropped in vain. Returns: false when all copies together are too
  /// few.
  bool ReclaimForFiles(std::uint64_t bytes) const;
  /// Calls `attempt`; while that fails with ENOSPC, drops pulled copies and calls it again, since another
  /// call may use the room first. Returns: 0 or errno, as `attempt` does.
  int RetryAfterReclaim(std::uint64_t bytes, const std::function<int()>& attempt) const;
  std::vector<NamespacePtr> All() const;

  const std::uint16_t mNodeId;
  Capacity mCapacity;
  PoolFolder mFolder;
  mutable sync::SharedMutex mMutex;  // taken before a namespace's mutex
  std::map<std::string, NamespacePtr, std::less<>> mNamespaces VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::fabric
