#pragma once

// The per-process table of the broadcast variables that this process knows: the big-memory id and the size of
// every block, and where each block is mapped here. A local cache only; the metadata service and the node
// server own the facts.
//
// Any thread may call any operation. No thread holds mTableLock and the mBlockLock of an entry at once.

#include "common/util/ref.h"

#include <cstdint>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

/// One variable. Complete when it is made; only mRawAddrs moves afterwards. Its end unmaps nothing.
class BroadcastVarInfo : public common::Referable {
 public:
  ~BroadcastVarInfo() override = default;

  /// The big-memory id of each block. Not written after creation.
  std::vector<std::string> mBmIds;
  /// The address of each block in this process, 0 when it is not mapped. As long as mBmIds; the length never
  /// changes. Guarded by mBlockLock.
  std::vector<std::uint64_t> mRawAddrs;
  /// The size of each block in bytes. Not written after creation.
  std::vector<unsigned long> mBlockSizes;
  /// Guards mRawAddrs. May be held across a big-memory call.
  std::shared_mutex mBlockLock;
};

class BroadcastSdkCache : public common::Referable {
 public:
  ~BroadcastSdkCache() override = default;

  /// Returns: the entry, which stays usable when it leaves the table; empty for an unknown name.
  common::Ref<BroadcastVarInfo> GetVarInfo(const std::string& name);

  /// Returns: a new entry outside the table with as many unmapped blocks as there are ids; empty, logged,
  /// without memory. The number of sizes is not compared with the number of ids.
  common::Ref<BroadcastVarInfo> GenerateVarInfo(const std::vector<std::string>& bmIds,
                                                const std::vector<unsigned long>& blockSizes);

  /// Enters a variable under its name (GenBcVarName). A name that is present keeps its entry and mappings,
  /// which is a success too. Returns: false, logged, without memory.
  bool InsertVarInfo(const std::string& name, const std::vector<std::string>& bmIds,
                     const std::vector<unsigned long>& blockSizes);

  void RemoveVarInfo(const std::string& name);

  /// Removes every variable whose name BEGINS with `appName`: removing application a1 also removes a12-7.
  void RemoveAppInfo(const std::string& appName);

  void CleanTable();

 private:
  /// Guarded by mTableLock.
  std::unordered_map<std::string, common::Ref<BroadcastVarInfo>> mVarTable;
  std::shared_mutex mTableLock;
};

}  // namespace vyn::tessel
