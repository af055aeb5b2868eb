#pragma once

// Frees the blocks of variables whose writer ended before it published them, and removes their records, so
// that their numbers are free again. It knows every batch of blocks that this daemon has allocated for a
// variable until the metadata leader says that the variable has these blocks. A writer has ended when no
// process has the first block open for writing any more. A restart of the daemon forgets the batches; their
// blocks then stay until the application ends.
//
// One thread calls Start and Stop; any thread may call Add.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/sync/mutex.h"
#include "services/node/metadata_client.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace vyn::services {

class UnpublishedVariables {
 public:
  /// \param fabric, metadata must outlive this.
  UnpublishedVariables(fabric::FabricNode& fabric, MetadataClient& metadata)
      : mFabric(fabric), mMetadata(metadata) {}
  /// Calls Stop.
  ~UnpublishedVariables() { Stop(); }
  UnpublishedVariables(const UnpublishedVariables&) = delete;
  UnpublishedVariables& operator=(const UnpublishedVariables&) = delete;

  void Start();
  void Stop() { mTask.Stop(); }
  /// Requires: `bmIds` is not empty.
  void Add(const std::string& application, std::uint32_t id, const std::vector<std::string>& bmIds);

 private:
  struct Batch {
    std::string application;
    std::uint32_t id;
    std::vector<std::string> bmIds;
    std::chrono::steady_clock::time_point begin;
    std::uint64_t stamp;  ///< of the first block before anybody could write it
  };

  void LookAtAll();
  /// Returns: whether nothing is left to do for the batch.
  bool Settle(const Batch& batch);

  fabric::FabricNode& mFabric;
  MetadataClient& mMetadata;
  sync::Mutex mMutex;
  std::vector<Batch> mNew VYN_GUARDED_BY(mMutex);
  std::vector<Batch> mBatches;  ///< used by the thread of mTask
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
