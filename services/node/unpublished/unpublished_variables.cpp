#include "services/node/unpublished/unpublished_variables.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace vyn::services {

namespace {

constexpr auto kDropPeriod = std::chrono::seconds(1);
/// How long a batch that nobody has opened for writing is kept: longer than one call of a driver that sends
/// its block list to the metadata service. A driver that is still slower gets an error, because its record is
/// gone.
constexpr auto kUnopenedLimit = std::chrono::minutes(5);

/// Whether the leader has decided that it does not remove a record.
bool IsDecision(std::uint32_t status) {
  return status == kStatusVariableExists || status == kStatusNotReady || status == kStatusUnknownOperation ||
         status == kStatusInvalidRequest;
}

}  // namespace

void UnpublishedVariables::Start(const std::string& folder) {
  mBatches = mJournal.Open(folder);
  for (BlockBatch& batch : mBatches) {
    bool writing = false;
    if (batch.outside) {  // its writer has to open the first block anew
      static_cast<void>(mFabric.IsBeingWritten(batch.application, batch.bmIds.front(), writing, batch.stamp));
    }
  }
  mTask.Start({"The unpublished variables of this node could not be checked", kDropPeriod},
              [this] { CheckAll(); });
}

void UnpublishedVariables::Add(const std::string& application, std::uint32_t id,
                               const std::vector<std::string>& bmIds, bool outside) {
  BlockBatch batch{application, id, bmIds, 0, outside, "", false, common::SteadyNow()};
  bool writing = false;
  static_cast<void>(mFabric.IsBeingWritten(application, bmIds.front(), writing, batch.stamp));
  mJournal.Save(batch);
  sync::MutexLock lock(mMutex);
  mNew.push_back(std::move(batch));
  mTask.Wake();  // the claim is sought while it must be this writer's
}

void UnpublishedVariables::CheckAll() {
  {
    sync::MutexLock lock(mMutex);
    mBatches.insert(mBatches.end(), std::make_move_iterator(mNew.begin()),
                    std::make_move_iterator(mNew.end()));
    mNew.clear();
  }
  for (std::size_t i = 0; i < mBatches.size() && !mTask.Stopping();) {
    if (!ReclaimIfAbandoned(mBatches[i])) {
      ++i;
      continue;
    }
    mJournal.Remove(mBatches[i]);
    std::swap(mBatches[i], mBatches.back());
    mBatches.pop_back();
  }
}

bool UnpublishedVariables::ReclaimIfAbandoned(BlockBatch& batch) {
  bool writing = false;
  std::uint64_t stamp = 0;
  if (mFabric.IsBeingWritten(batch.application, batch.bmIds.front(), writing, stamp) != 0) {
    // The blocks were freed meanwhile, or a reboot has emptied the pool. The record may be left.
    const std::uint32_t status = mMetadata.GiveUp(batch.application, batch.id, batch.bmIds.front());
    if (!Failed(status)) {
      mFabric.FreeBatch(batch.application, batch.bmIds);
    }
    return !Failed(status) || IsDecision(status);
  }
  if (writing || (stamp == batch.stamp && common::SteadyNow() - batch.begin < kUnopenedLimit)) {
    SeekClaim(batch);
    return false;
  }
  tessel::BroadcastBlockInfo info;
  const std::uint32_t status = mMetadata.LookUp(batch.application, batch.id, info);
  if (!Failed(status) &&
      std::find(info.bmIds.begin(), info.bmIds.end(), batch.bmIds.front()) != info.bmIds.end()) {
    return true;
  }
  if (status == kStatusNotReady) {
    // Drivers that record their blocks one by one have a record that is not complete and not abandoned.
    if (!Failed(mMetadata.FindBlock(batch.application, batch.id, 0)) || !RemoveRecord(batch)) {
      return false;
    }
  } else if (Failed(status) && status != kStatusUnknownVariable) {
    return false;  // the leader did not say
  }
  VYN_LOG_WARN("The writer of variable " << batch.id << " of application " << batch.application
                                         << " has ended without publishing it; freeing " << batch.bmIds.size()
                                         << " blocks");
  mFabric.FreeBatch(batch.application, batch.bmIds);
  return true;
}

void UnpublishedVariables::SeekClaim(BlockBatch& batch) const {
  std::vector<std::string> names;
  const std::string application = AppPath(batch.application);
  if (batch.claimSought || zookeeper::Children(application, names) != ZOK) {
    return;
  }
  batch.claimSought = true;
  const std::string prefix = std::to_string(batch.id) + ".";
  for (const std::string& name : names) {
    if (name.rfind(prefix, 0) == 0) {
      // A leader that failed may have left two records of one number. Then nobody knows whose they are.
      batch.claim = batch.claim.empty() ? application + "/" + name : "";
    }
  }
  mJournal.Save(batch);
}

bool UnpublishedVariables::RemoveRecord(BlockBatch& batch) {
  const std::uint32_t status = mMetadata.GiveUp(batch.application, batch.id, batch.bmIds.front());
  if (status != kStatusNotReady && status != kStatusUnknownOperation) {
    return !Failed(status);
  }
  // The record names no writer.
  SeekClaim(batch);
  const int found = batch.claim.empty() ? ZNONODE : zookeeper::Exists(batch.claim);
  if (!batch.claimSought || (found != ZOK && found != ZNONODE)) {
    return false;  // ZooKeeper did not say
  }
  // The status is a failure, too, when the variable was published since the look-up.
  return found == ZNONODE || !Failed(mMetadata.RemoveUnpublished(batch.application, batch.id));
}

}  // namespace vyn::services
