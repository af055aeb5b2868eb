#pragma once

// Copies of other nodes' objects, so that processes of this machine can map them.
//
// A copy is pulled once, however many ask at that moment: the first one's thread pulls, the others wait for
// it. Copies are for reading only and hold what the original held when it was pulled. Each use asks the owner
// whether the caller may see the object and whether it still exists; when the owner cannot be reached, a
// caller with the namespace and token that the owner accepted last is served all the same. A copy goes when
// the owner has freed the original (seen at a use, by Drop, or by Sweep), when its room is wanted, and with
// the node.
//
// Threads: any. No lock is held while another node is asked.

#include "platform/fabric/node/neighbours.h"
#include "platform/fabric/node/pool/pool.h"

#include <atomic>
#include <condition_variable>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

namespace vyn::bm {

class PulledCopies {
 public:
  PulledCopies(Pool& pool, Neighbours& neighbours) : mPool(pool), mNeighbours(neighbours) {}

  /// Opens the copy of an object of another node, after pulling it when that is needed. \param waiting asked
  /// now and then whether the caller still waits; who pulls does so to the end, for the others. Returns: 0,
  /// the owner's refusal, or kBmUnconnected, kBmNotEnoughCapacity, -EIO.
  int Open(const ObjectName& object, const std::function<bool()>& waiting, FileDescriptor& file,
           std::uint64_t& size);

  /// Forgets a copy whose original is gone.
  void Drop(std::string_view id);
  /// Forgets all copies of a namespace that is gone.
  void DropNamespace(std::string_view ns);
  /// Asks the owners which originals are gone, and drops their copies.
  void Sweep();
  /// Drops copies, those first that were not used for the longest time, until `bytes` are free. Returns:
  /// false when all of them would not give so much; then none is dropped.
  bool Reclaim(std::uint64_t bytes);
  /// Makes every pull under way give up.
  void Stop() { mStopping = true; }

  struct Totals {
    std::uint64_t copies = 0;
    std::uint64_t bytes = 0;
    std::uint64_t pulls = 0;
  };
  Totals Count() const;

 private:
  struct Copy {
    bool ready = false;  // otherwise it is being pulled
    int result = 0;      // of the pull, once it has ended
    std::uint64_t size = 0;
    std::string ns;
    TokenHash right;                       // of the namespace and token that the owner accepted last
    std::list<std::string>::iterator use;  // in mUses, while ready
  };
  using CopyPtr = std::shared_ptr<Copy>;

  int Pull(RemoteNode& owner, const ObjectName& object, std::uint64_t size,
           const std::function<bool()>& waiting);
  /// Takes a ready copy out of the table. Requires: mMutex is held. \param keeper as in PoolFolder::Remove.
  void Remove(const std::string& id, FileDescriptor& keeper);
  bool Serve(const std::string& id, const Copy& copy, FileDescriptor& file, std::uint64_t& size) const;

  Pool& mPool;
  Neighbours& mNeighbours;
  std::atomic<bool> mStopping{false};
  mutable std::mutex mMutex;  // guards all below
  std::condition_variable mChanged;
  std::unordered_map<std::string, CopyPtr> mCopies;
  std::list<std::string> mUses;  // ids of ready copies, the one used last in front
  std::uint64_t mBytes = 0;      // charged for ready copies
  std::uint64_t mPulls = 0;
};

}  // namespace vyn::bm
