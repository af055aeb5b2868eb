#include "services/node/unpublished_variables.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "services/common/service_status.h"

#include <iterator>
#include <utility>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);
/// How long a batch that nobody has opened for writing is kept: longer than one call of a driver that sends
/// its block list to the metadata service. A driver that is still slower gets an error, because its record is
/// gone.
constexpr auto kUnopenedLimit = std::chrono::minutes(5);

}  // namespace

void UnpublishedVariables::Start() {
  mTask.Start({"The unpublished variables of this node could not be looked at", kPeriod},
              [this] { LookAtAll(); });
}

void UnpublishedVariables::Add(const std::string& application, std::uint32_t id,
                               const std::vector<std::string>& bmIds) {
  Batch batch{application, id, bmIds, common::SteadyNow(), 0};
  bool writing = false;
  static_cast<void>(mFabric.IsBeingWritten(application, bmIds.front(), writing, batch.stamp));
  sync::MutexLock lock(mMutex);
  mNew.push_back(std::move(batch));
}

void UnpublishedVariables::LookAtAll() {
  {
    sync::MutexLock lock(mMutex);
    mBatches.insert(mBatches.end(), std::make_move_iterator(mNew.begin()),
                    std::make_move_iterator(mNew.end()));
    mNew.clear();
  }
  std::erase_if(mBatches, [this](const Batch& batch) { return !mTask.Stopping() && Settle(batch); });
}

bool UnpublishedVariables::Settle(const Batch& batch) {
  bool writing = false;
  std::uint64_t stamp = 0;
  if (mFabric.IsBeingWritten(batch.application, batch.bmIds.front(), writing, stamp) != 0) {
    return true;  // freed meanwhile
  }
  if (writing || (stamp == batch.stamp && common::SteadyNow() - batch.begin < kUnopenedLimit)) {
    return false;
  }
  tessel::BroadcastBlockInfo info;
  std::uint32_t status = mMetadata.LookUp(batch.application, batch.id, info);
  if (!Failed(status) && info.bmIds == batch.bmIds) {
    return true;
  }
  if (status == kStatusNotReady) {
    // Drivers that record their blocks one by one have a record that is not complete and not abandoned.
    if (!Failed(mMetadata.FindBlock(batch.application, batch.id, 0))) {
      return false;
    }
    if (Failed(mMetadata.RemoveUnpublished(batch.application, batch.id))) {
      return false;  // also when it was published since the look-up
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

}  // namespace vyn::services
