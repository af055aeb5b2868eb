#pragma once

// The objects that this node owns: namespaces with their tokens, and the files in them.
//
// What stands in the folder is the truth; the tables here are made from it at Open and kept beside it.
// Threads: any, between Open and Close. While pages are reserved or freed no lock is held, but for one: an
// object of a namespace is made larger by one call at a time.
//
// Results are those of protocol.h, and -EIO when the pool's folder failed in something that it should do.

#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/node/pool/capacity.h"
#include "platform/fabric/node/pool/pool_folder.h"
#include "platform/fabric/protocol/remote_node.h"

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace vyn::bm {

/// A namespace of the pool. Held by shared pointers: it may be destroyed while a call still works in it.
struct Namespace {
  const std::string name;
  const TokenHash token;

  std::mutex mutex;  // guards the three below
  bool destroyed = false;
  std::unordered_map<std::string, std::uint64_t> sizes;  // of the objects, in bytes, by id
  std::uint64_t charged = 0;                             // of the capacity, by the objects
  std::mutex
      expanding;  // held by the one call that makes an object of this namespace larger; taken before `mutex`

  Namespace(std::string theName, const TokenHash& theToken) : name(std::move(theName)), token(theToken) {}
};

using NamespacePtr = std::shared_ptr<Namespace>;

class Pool {
 public:
  using Warn = std::function<void(const std::string&)>;

  Pool(std::uint16_t nodeId, std::uint64_t capacity) : mNodeId(nodeId), mCapacity(capacity) {}

  /// Opens the folder and adopts what stands in it, each object at the size that it was given. \param warn
  /// takes a line about each file that was cut back to it, and about what was left alone.
  bool Open(const std::string& path, const Warn& warn, std::string& error);
  void Close();

  /// More namespaces than anybody needs are kBmNotEnoughCapacity.
  static constexpr std::size_t kMaxNamespaces = 1U << 16U;

  /// -EACCES, kBmNamespaceExists, kBmNamespaceInvalid as in protocol.h.
  int CreateNamespace(std::string_view name, std::string_view token);
  /// \param between called after every object that is freed; may be null.
  int DestroyNamespace(const NamespacePtr& space, const std::function<void()>& between = nullptr);
  /// Finds a namespace without asking for its token. Returns: null when there is none.
  NamespacePtr Find(std::string_view name) const;
  /// Finds a namespace for who knows its token. Returns: 0, -ENOENT, -EACCES.
  int Enter(const Access& access, NamespacePtr& space) const;

  int Allocate(const NamespacePtr& space, std::uint64_t size, std::string& id);
  /// A file without a name in the pool's file system, with `size` bytes reserved. Copies give way when it is
  /// full and would have room without them. \param failure errno.
  FileDescriptor MakeFile(std::uint64_t size, int& failure);
  /// Cuts files back to their objects' sizes: who has one for writing can make it larger, unaccounted.
  void CutGrown();
  /// `size` is the new size. One below the present size is kBmLocalError.
  int Expand(const NamespacePtr& space, std::string_view id, std::uint64_t size);
  int Free(const NamespacePtr& space, std::string_view id);
  int Stat(const NamespacePtr& space, std::string_view id, std::uint64_t& size) const;
  /// Opens an object's file.
  int OpenObject(const NamespacePtr& space, std::string_view id, bool writable, FileDescriptor& file,
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
  /// The size of an object that is adopted. Returns: false when it is none of this pool's.
  bool SizeOf(const Namespace& space, const std::string& id, const Warn& warn, std::uint64_t& size);
  /// Makes copies go until the file system has room for an object of `bytes`. Returns: false when that needs
  /// more than all of them account for; what some process maps gives no room, so that all may go in vain.
  bool MakeRoom(std::uint64_t bytes) const;
  /// Makes the attempt, and again after copies gave way to `bytes`, as long as there is no room: what gave way
  /// may have been taken by somebody else. Returns: 0 or errno, as `attempt` does.
  int WithRoom(std::uint64_t bytes, const std::function<int()>& attempt) const;
  std::vector<NamespacePtr> All() const;

  const std::uint16_t mNodeId;
  Capacity mCapacity;
  PoolFolder mFolder;
  mutable std::shared_mutex mMutex;  // guards mNamespaces; taken before a namespace's mutex
  std::map<std::string, NamespacePtr, std::less<>> mNamespaces;
};

}  // namespace vyn::bm
