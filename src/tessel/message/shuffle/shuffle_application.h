#pragma once

// What a metadata service knows about one running application. An ApplicationInfo holds ShuffleInfo objects,
// a ShuffleInfo holds PartitionInfo objects, and a PartitionInfo holds the blobs that were written for it. A
// blob may be in several containers. An engine process uses ShuffleBlob alone.

#include "common/util/ref.h"
#include "platform/sync/mutex.h"
#include "tessel/message/shuffle/shuffle_blob.h"

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

namespace vyn::tessel {

class PartitionInfo : public common::Referable {
 public:
  std::uint32_t partitionId = 0;
  sync::Mutex mMutex;
  std::vector<common::Ref<ShuffleBlob>> mBlobs VYN_GUARDED_BY(mMutex);  ///< in the order of arrival

  /// Always null, as are NULL_INSTANCE and NULL_APPLICATION below.
  static common::Ref<PartitionInfo> NULL_PARTITION_INFO;
};

class ShuffleInfo : public common::Referable {
 public:
  /// Adds `blob` to the partition, which it creates if necessary. Any thread may call it. Failures are only
  /// logged.
  void AddNewShuffleBlob(unsigned int partitionId, common::Ref<ShuffleBlob>& blob);

  std::uint32_t shuffleId = 0;
  sync::Mutex mMutex;  ///< taken before the mutex of a partition
  std::unordered_map<unsigned int, common::Ref<PartitionInfo>> mPartitions
      VYN_GUARDED_BY(mMutex);                                                     ///< by partitionId
  std::unordered_map<unsigned int, common::Ref<common::Referable>> mOpaqueTable;  ///< the service's own

  static common::Ref<ShuffleInfo> NULL_INSTANCE;
};

/// The service defines the keys and what mLock guards.
class ApplicationInfo : public common::Referable {
 public:
  std::string mAppId;
  std::unordered_map<unsigned int, common::Ref<ShuffleInfo>> mShuffles;
  sync::SharedMutex mLock;
  std::unordered_map<std::uint64_t, common::Ref<ShuffleBlob>> mBlobs;
  std::unordered_map<unsigned int, std::set<unsigned int>> mOpaqueSets;

  static common::Ref<ApplicationInfo> NULL_APPLICATION;
};

}  // namespace vyn::tessel
