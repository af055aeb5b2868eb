#pragma once

// The batches of blocks that this node has allocated for variables that are not published yet, as files in a
// folder. So a restarted daemon knows them too. One file for each batch, named after its first block, in
// JSON.
//
// Open comes first. Any thread may call the other functions, but only one at a time for the same batch.

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace vyn::services {

struct BlockBatch {
  std::string application;
  std::uint32_t id = 0;            ///< of the variable
  std::vector<std::string> bmIds;  ///< at least one
  std::uint64_t stamp = 0;         ///< of the first block before anybody could write it
  bool outside = false;            ///< whether the writer is outside the fabric
  /// The path of the record that the writer claimed the variable's number with. Empty while it is not known.
  std::string claim;
  /// Whether the claim was looked for while it must have been this writer's. It is not looked for again.
  bool claimSought = false;
  /// When this daemon has learned of the batch.
  std::chrono::steady_clock::time_point begin;
};

class BatchJournal {
 public:
  /// Makes the folder if it is missing. Returns: the batches in it. Deletes files that hold none.
  std::vector<BlockBatch> Open(const std::string& folder);
  /// Writes the batch's file, or replaces it. A failure is logged: after a restart the batch is then unknown.
  void Save(const BlockBatch& batch) const;
  void Remove(const BlockBatch& batch) const;

 private:
  std::string mFolder;
};

}  // namespace vyn::services
