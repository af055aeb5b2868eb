#include "tessel/message/shuffle/shuffle_application.h"

#include "common/log/logging.h"

#include <new>

namespace vyn::tessel {

using common::Ref;

Ref<PartitionInfo> PartitionInfo::NULL_PARTITION_INFO;
Ref<ShuffleInfo> ShuffleInfo::NULL_INSTANCE;
Ref<ApplicationInfo> ApplicationInfo::NULL_APPLICATION;

void ShuffleInfo::AddNewShuffleBlob(unsigned int partitionId, Ref<ShuffleBlob>& blob) {
  if (blob == nullptr) {
    VYN_LOG_ERROR("Unexpected nullptr value blob");
    return;
  }
  sync::MutexLock lock(mMutex);
  const auto place = mPartitions.find(partitionId);
  Ref<PartitionInfo> partition = place == mPartitions.end() ? nullptr : place->second;
  const bool isNew = partition == nullptr;
  if (isNew) {
    partition = new (std::nothrow) PartitionInfo;
    if (partition == nullptr) {
      VYN_LOG_ERROR("New PartitionInfoPtr failed");
      return;
    }
    partition->partitionId = partitionId;
  }
  {
    sync::MutexLock partitionLock(partition->mMutex);
    partition->mBlobs.push_back(blob);
  }
  if (isNew) {
    mPartitions[partitionId] = partition;  // also replaces a null entry
  }
  VYN_LOG_DEBUG("Record shuffleBlob " << (blob->mId == nullptr ? 0 : blob->mId->innerId) << " for app "
                                      << blob->mAppId << " shuffleId " << shuffleId << " partitionId "
                                      << partitionId);
}

}  // namespace vyn::tessel
