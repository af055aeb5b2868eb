#pragma once

// What a metadata service knows about one running application. An ApplicationInfo holds ShuffleInfo objects,
// a ShuffleInfo holds PartitionInfo objects, and a PartitionInfo holds the blobs that were written for it. A
// blob may be in several containers. An engine process uses ShuffleBlob alone.

#include "common/util/ref.h"
#include "tessel/message/shuffle/shuffle_blob.h"

#include <cstdint>
#include <mutex>
#include <set>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

class PartitionInfo : public common::Referable {
 public:
  std::uint32_t partitionId = 0;
  std::mutex mMutex;                             ///< guards mBlobs
  std::vector<common::Ref<ShuffleBlob>> mBlobs;  ///< in the order of arrival

  /// Always null, as are NULL_INSTANCE and NULL_APPLICATION below.
  static common::Ref<PartitionInfo> NULL_PARTITION_INFO;
};

class ShuffleInfo : public common::Referable {
 public:
  /// Adds `blob` to the partition, which it creates if necessary. Any thread may call it. Failures are only
  /// logged.
  void AddNewShuffleBlob(unsigned int partitionId, common::Ref<ShuffleBlob>& blob);

  std::uint32_t shuffleId = 0;
  std::mutex mMutex;  ///< guards mPartitions; taken before the mutex of a partition
  std::unordered_map<unsigned int, common::Ref<PartitionInfo>> mPartitions;       ///< by partitionId
  std::unordered_map<unsigned int, common::Ref<common::Referable>> mOpaqueTable;  ///< the service's own

  static common::Ref<ShuffleInfo> NULL_INSTANCE;
};

/// The service defines the keys and what mLock guards.
class ApplicationInfo : public common::Referable {
 public:
  std::string mAppId;
  std::unordered_map<unsigned int, common::Ref<ShuffleInfo>> mShuffles;
  std::shared_mutex mLock;
  std::unordered_map<std::uint64_t, common::Ref<ShuffleBlob>> mBlobs;
  std::unordered_map<unsigned int, std::set<unsigned int>> mOpaqueSets;

  static common::Ref<ApplicationInfo> NULL_APPLICATION;
};

}  // namespace vyn::tessel
