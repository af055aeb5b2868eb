#pragma once

// What the metadata service knows of one running application: an ApplicationInfo holds ShuffleInfo objects,
// these hold PartitionInfo objects, and these the blobs that were written for them. A client process uses
// ShuffleBlob alone. One blob may stand in several containers at once.

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

  /// Holds null for the life of the process, as its like below.
  static common::Ref<PartitionInfo> NULL_PARTITION_INFO;
};

class ShuffleInfo : public common::Referable {
 public:
  /// Records `blob` under the partition, which is made when it is new. Any thread. Failures stand in the log
  /// alone.
  void AddNewShuffleBlob(unsigned int partitionId, common::Ref<ShuffleBlob>& blob);

  std::uint32_t shuffleId = 0;
  std::mutex mMutex;  ///< guards mPartitions; taken before the mutex of a partition
  std::unordered_map<unsigned int, common::Ref<PartitionInfo>> mPartitions;       ///< by partitionId
  std::unordered_map<unsigned int, common::Ref<common::Referable>> mOpaqueTable;  ///< the service's to define

  static common::Ref<ShuffleInfo> NULL_INSTANCE;
};

/// The keys and what the lock guards are the service's to define; what is last here goes first.
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
