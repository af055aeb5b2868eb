#include "services/node/unpublished/batch_journal.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/fabric/protocol/names.h"
#include "services/common/json_fields.h"
#include "services/common/zookeeper_layout.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace vyn::services {

namespace {

/// The end of the name of a file that is being written.
constexpr const char* kHalfWritten = ".new";

/// Returns: whether `text` is a batch. A file that was damaged must not free blocks of somebody else.
bool Parse(const std::string& text, BlockBatch& batch) {
  const nlohmann::json record = ParseJson(text);
  batch.application = TextField(record, "application");
  batch.claim = TextField(record, "claim");
  batch.stamp = NumberField(record, "stamp", 0);
  batch.outside = FlagField(record, "outside");
  const std::uint64_t id = NumberField(record, "id", ~std::uint64_t{0});
  batch.id = static_cast<std::uint32_t>(id);
  const nlohmann::json* blocks = FindField(record, "blocks");
  if (!IsApplication(batch.application) || id != batch.id || blocks == nullptr || !blocks->is_array() ||
      blocks->empty()) {
    return false;
  }
  for (const nlohmann::json& block : *blocks) {
    if (!block.is_string() || !fabric::IsObjectId(block.get<std::string>())) {
      return false;
    }
    batch.bmIds.push_back(block.get<std::string>());
  }
  return batch.claim.empty() || ReclaimEntry{batch.application, batch.claim, batch.id, false}.IsPlausible();
}

}  // namespace

std::vector<BlockBatch> BatchJournal::Open(const std::string& folder) {
  mFolder = folder;
  std::vector<BlockBatch> batches;
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    VYN_LOG_WARN("Cannot make " << folder << ": " << std::strerror(errno)
                                << "; a restart will not know the variables that are not published");
    return batches;
  }
  std::error_code failure;
  for (const auto& entry : std::filesystem::directory_iterator(folder, failure)) {
    std::ifstream file(entry.path());
    const std::string text{std::istreambuf_iterator<char>(file), {}};
    BlockBatch batch;
    if (entry.path().extension() != kHalfWritten && Parse(text, batch) &&
        entry.path().filename() == batch.bmIds.front()) {
      batch.claimSought = true;
      batch.begin = common::SteadyNow();
      batches.push_back(std::move(batch));
      continue;
    }
    VYN_LOG_WARN("Deleting " << entry.path() << ", which holds no batch of blocks");
    std::error_code ignored;
    std::filesystem::remove(entry.path(), ignored);
  }
  return batches;
}

void BatchJournal::Save(const BlockBatch& batch) const {
  const std::string path = mFolder + "/" + batch.bmIds.front();
  const nlohmann::json record{
      {"application", batch.application}, {"id", batch.id},       {"stamp", batch.stamp},
      {"outside", batch.outside},         {"claim", batch.claim}, {"blocks", batch.bmIds}};
  std::ofstream file(path + kHalfWritten, std::ios::trunc);
  file << record.dump();
  file.close();
  // The file appears whole or not at all, also when this process is killed.
  std::error_code failure;
  if (file.good()) {
    std::filesystem::rename(path + kHalfWritten, path, failure);
  }
  if (!file.good() || failure) {
    VYN_LOG_WARN("Cannot write " << path << "; a restart will not know variable " << batch.id << " of "
                                 << batch.application);
  }
}

void BatchJournal::Remove(const BlockBatch& batch) const {
  std::error_code ignored;
  std::filesystem::remove(mFolder + "/" + batch.bmIds.front(), ignored);
}

}  // namespace vyn::services
