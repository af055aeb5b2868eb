#pragma once

// Frees the blocks of variables whose writer ended before it published them, and removes their records, so
// that their numbers are free again. It knows every batch of blocks that this daemon has allocated for a
// variable until the metadata leader says that the variable has these blocks. A writer has ended when no
// process has the first block open for writing any more: the kernel tells that, also after a restart of the
// daemon. For a writer outside the fabric the fabric node has it open while the writer is connected. The
// batches are in a BatchJournal, so that a restarted daemon goes on with them.
//
// A record is removed only if it is the one that the dead writer made: it names the writer's first block, or
// its path is BlockBatch::claim. Another writer may have the number meanwhile, and may be filling its variable
// at another node.
//
// One thread calls Start and Stop; any thread may call Add.

#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/sync/mutex.h"
#include "services/node/metadata_client.h"
#include "services/node/unpublished/batch_journal.h"

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

  /// \param folder of the journal.
  void Start(const std::string& folder);
  void Stop() { mTask.Stop(); }
  /// Requires: `bmIds` is not empty.
  void Add(const std::string& application, std::uint32_t id, const std::vector<std::string>& bmIds) {
    Add(application, id, bmIds, false);
  }
  /// The same for a writer outside the fabric. After a restart of the daemon it has some minutes to connect
  /// again. \param bmIds some of the variable's blocks.
  void AddOutside(const std::string& application, std::uint32_t id, const std::vector<std::string>& bmIds) {
    Add(application, id, bmIds, true);
  }

 private:
  void Add(const std::string& application, std::uint32_t id, const std::vector<std::string>& bmIds,
           bool outside);
  void CheckAll();
  /// Frees the batch if its writer has ended without publishing it. Returns: false for a batch that must be
  /// checked again.
  bool ReclaimIfAbandoned(BlockBatch& batch);
  /// Fills in the claim of a batch whose writer has just made it. Does nothing when it was sought before.
  void SeekClaim(BlockBatch& batch) const;
  /// Removes the record of a writer that has ended, unless it is another writer's. Returns: whether this is
  /// decided.
  bool RemoveRecord(BlockBatch& batch);

  fabric::FabricNode& mFabric;
  MetadataClient& mMetadata;
  BatchJournal mJournal;
  sync::Mutex mMutex;
  std::vector<BlockBatch> mNew VYN_GUARDED_BY(mMutex);
  std::vector<BlockBatch> mBatches;  ///< used by the thread of mTask
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
