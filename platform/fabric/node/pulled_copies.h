#pragma once

// Copies of other nodes' objects, so that processes of this machine can map them.
//
// Callers that ask for an object at the same time share one pull: the first caller's thread pulls, the others
// wait. Copies are read-only. At each use this node asks the owner whether the caller may see the object,
// whether it still exists, and whether it still has the bytes of the copy. Equal stamps mean equal bytes.
// While a process may be writing, this node compares the checksums instead. It pulls a copy that differs
// anew; processes that have mapped the old copy keep it.
//
// While the owner cannot be reached, this node serves a caller that presents the namespace and token that the
// owner accepted last, unless the copy was made before the object's writer had finished.
//
// This node drops a copy when the owner has freed the original (found at a use, by Drop, or by Sweep), when
// its room is needed, and when the node stops.
//
// A pull compares the checksum of the bytes that arrived with the owner's. If they differ although nobody has
// written the object meanwhile, this node repeats the pull once; a second difference is an error. While
// somebody writes, it repeats the pull twice and then serves the bytes that arrived; the next caller compares
// again.
//
// Threads: any. No lock is held while another node is called.

#include "platform/fabric/node/neighbours.h"
#include "platform/fabric/node/pool/pool.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>

namespace vyn::fabric {

class PulledCopies {
 public:
  /// \param warn receives a line for the log; may be null.
  PulledCopies(Pool& pool, Neighbours& neighbours, std::function<void(const std::string&)> warn)
      : mPool(pool), mNeighbours(neighbours), mWarn(std::move(warn)) {}

  /// Opens the copy of an object of another node, after pulling it when that is needed. \param callerWaits
  /// called now and then; returns whether the caller still waits. A pull is completed all the same, for the
  /// other callers. Returns: 0, the owner's refusal, or kBmUnconnected, kBmNotEnoughCapacity, -EBADMSG,
  /// -EIO.
  int Open(const ObjectName& object, const std::function<bool()>& callerWaits, net::Descriptor& file,
           std::uint64_t& size);

  /// What the copy that this node keeps holds now; its file is read. \param between called after every block;
  /// false ends the reading. Returns: 0, -EIO, or -ENOENT when there is no copy for the caller.
  int StateOfCopy(const ObjectName& object, const std::function<bool()>& between, ObjectState& state) const;

  /// Forgets a copy whose original is gone.
  void Drop(std::string_view id);
  /// Forgets all copies of a namespace that is gone.
  void DropNamespace(std::string_view ns);
  /// Asks the owners which originals are gone, and drops their copies. \param stopping ends the sweep early
  /// when it returns true.
  void Sweep(const std::function<bool()>& stopping);
  /// Drops copies, least recently used first, until `bytes` are free. Returns: false when all copies together
  /// have fewer bytes; then none is dropped.
  bool Reclaim(std::uint64_t bytes);
  /// Makes every pull in progress fail with kBmUnconnected.
  void Stop() { mStopping = true; }

  struct Totals {
    std::uint64_t copies = 0;
    std::uint64_t bytes = 0;
    std::uint64_t pulls = 0;
  };
  Totals Count() const;

 private:
  /// Read and written under mMutex. Clang cannot check that: the mutex is a member of another object.
  struct Copy {
    bool ready = false;       // otherwise it is being pulled
    int result = 0;           // of the pull, when it has ended
    std::uint64_t begun = 0;  // which pull of this node it was
    ObjectState state;        // of the original when its bytes were these
    std::string ns;
    TokenHash right;                       // of the namespace and token that the owner accepted last
    std::list<std::string>::iterator use;  // in mUses, while ready
  };
  using CopyPtr = std::shared_ptr<Copy>;

  /// Whether the copy has the original's bytes. \param state of the original; receives the checksum when it
  /// is needed. Returns: 0, or as Open when the owner could not be asked.
  int Compare(RemoteNode& owner, const ObjectName& object, const ObjectState& copy, ObjectState& state,
              bool& same);
  /// \param state of the original before the pull; receives what the copy holds.
  int Pull(RemoteNode& owner, const ObjectName& object, ObjectState& state,
           const std::function<bool()>& callerWaits);
  /// Reads the original into a file. \param checksum of the bytes that arrived.
  int Fetch(RemoteNode& owner, const ObjectName& object, std::uint64_t size, int file,
            const std::function<bool()>& callerWaits, std::uint64_t& checksum);
  /// Removes a ready copy. \param lastReference as in PoolFolder::Remove.
  void Remove(const std::string& id, net::Descriptor& lastReference) VYN_REQUIRES(mMutex);
  /// Opens the file of a ready copy. Returns: false when somebody removed it.
  bool OpenCopy(const std::string& id, const Copy& copy, net::Descriptor& file, std::uint64_t& size) const
      VYN_REQUIRES(mMutex);

  Pool& mPool;
  Neighbours& mNeighbours;
  const std::function<void(const std::string&)> mWarn;
  std::atomic<bool> mStopping{false};
  mutable sync::Mutex mMutex;
  sync::Condition mChanged;
  std::unordered_map<std::string, CopyPtr> mCopies VYN_GUARDED_BY(mMutex);
  std::list<std::string> mUses VYN_GUARDED_BY(mMutex);  // ids of ready copies, the most recently used first
  std::uint64_t mBytes VYN_GUARDED_BY(mMutex) = 0;      // quota that the ready copies use
  std::uint64_t mPulls VYN_GUARDED_BY(mMutex) = 0;      // completed
  std::uint64_t mPullsBegun VYN_GUARDED_BY(mMutex) = 0;
};

}  // namespace vyn::fabric
