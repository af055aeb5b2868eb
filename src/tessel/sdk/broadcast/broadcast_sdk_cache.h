#pragma once

// The cache of the broadcast variables that this process knows: id, size and mapped address of every block.
// The metadata service and the node server own the facts.
//
// Any thread may call any operation. No thread holds mTableLock and the mBlockLock of an entry at once.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

/// One variable. Only mRawAddrs and mUsed change after the entry was made. The destructor unmaps nothing.
class BroadcastVarInfo : public common::Referable {
 public:
  BroadcastVarInfo() = default;
  /// No block is mapped.
  BroadcastVarInfo(const std::vector<std::string>& bmIds, const std::vector<unsigned long>& blockSizes)
      : mBmIds(bmIds), mRawAddrs(bmIds.size(), 0), mBlockSizes(blockSizes) {}
  ~BroadcastVarInfo() override = default;

  /// The object id of each block. Constant after creation.
  std::vector<std::string> mBmIds;
  /// The address of each block in this process; 0 for one that is not mapped. Has as many elements as mBmIds.
  std::vector<std::uint64_t> mRawAddrs VYN_GUARDED_BY(mBlockLock);
  /// The size of each block in bytes. Constant after creation.
  std::vector<unsigned long> mBlockSizes;
  /// Whether a block was mapped or read. Then no other variable of this number may take the entry's place:
  /// the caller would mix the blocks of both.
  bool mUsed VYN_GUARDED_BY(mBlockLock) = false;
  /// A thread may hold it during a big-memory call.
  sync::SharedMutex mBlockLock;
};

class BroadcastSdkCache : public common::Referable {
 public:
  ~BroadcastSdkCache() override = default;

  /// Returns: the entry, which stays usable after its removal from the cache; null for an unknown name.
  common::Ref<BroadcastVarInfo> GetVarInfo(const std::string& name);

  /// Makes an entry and does not insert it. Its blocks are not mapped. Does not compare the number of sizes
  /// with the number of ids. Returns: the entry; null, after a log line, without memory.
  common::Ref<BroadcastVarInfo> GenerateVarInfo(const std::vector<std::string>& bmIds,
                                                const std::vector<unsigned long>& blockSizes);

  /// Inserts a variable under its name (GenBcVarName). A name that is present keeps its entry and its
  /// mappings. Returns: true in both cases; false, after a log line, without memory.
  bool InsertVarInfo(const std::string& name, const std::vector<std::string>& bmIds,
                     const std::vector<unsigned long>& blockSizes);

  void RemoveVarInfo(const std::string& name);

  /// Removes every variable whose name BEGINS with `appName`. Removing application a1 also removes a12-7.
  void RemoveAppInfo(const std::string& appName);

  void CleanTable();

 private:
  std::unordered_map<std::string, common::Ref<BroadcastVarInfo>> mVarTable VYN_GUARDED_BY(mTableLock);
  sync::SharedMutex mTableLock;
};

}  // namespace vyn::tessel
