// MetadataStore::Open: raises the epoch and reads the records at the start of a leadership.

#include "cluster/cluster_zkadapter.h"
#include "common/log/logging.h"
#include "common/util/clock.h"
#include "common/wait/retry.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/metadata/metadata_store.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace vyn::services {

namespace {

/// The most threads that read applications in parallel.
constexpr unsigned int kLoaders = 8;
/// Attempts to raise the epoch while another leader raises it, too.
constexpr unsigned int kRaiseAttempts = 10;

}  // namespace

std::uint32_t MetadataStore::RaiseEpoch() {
  for (const char* path : {kVynRoot, kEpochPath, kNodesPath, kAppsPath, kReclaimPath}) {
    if (const int result = zookeeper::Ensure(path); result != ZOK) {
      return StoreFailure(result, std::string("make ") + path);
    }
  }
  auto retry = common::Retry::Times(kRaiseAttempts);
  do {
    Stat stat{};
    int result = zookeeper::Exists(kEpochPath, &stat);
    if (result == ZOK) {
      result = zookeeper::Set(kEpochPath, "", stat.version);
      if (result == ZOK) {
        mEpoch = stat.version + 1;
        return VYN_OK;
      }
    }
    if (result != ZBADVERSION) {
      return StoreFailure(result, "raise the epoch");
    }
  } while (retry.Again());
  return kStatusNotLeading;
}

std::uint32_t MetadataStore::Open(std::map<std::string, Application>& applications, Deletions& deletions,
                                  std::chrono::steady_clock::time_point* asked) {
  if (const std::uint32_t status = RaiseEpoch(); Failed(status)) {
    return status;
  }
  std::vector<std::string> names;
  if (const int result = zookeeper::Children(kAppsPath, names); result != ZOK) {
    return StoreFailure(result, "list the applications");
  }
  std::vector<Application> loaded(names.size());
  std::atomic<std::size_t> next{0};
  std::atomic<std::uint32_t> failure{VYN_OK};
  const auto load = [&] {
    try {
      for (std::size_t i = next++; i < names.size() && !Failed(failure); i = next++) {
        if (const std::uint32_t status = LoadApplication(names[i], loaded[i]); Failed(status)) {
          failure = status;
        }
      }
    } catch (const std::exception& problem) {
      VYN_LOG_ERROR("The records could not be read: " << problem.what());
      failure = VYN_ERR_NULL_POINTER;
    }
  };
  {
    std::vector<std::jthread> loaders;
    const std::size_t count = std::min<std::size_t>(kLoaders, names.size());
    for (std::size_t i = 1; i < count; ++i) {
      loaders.emplace_back(load);
    }
    load();
  }
  if (Failed(failure)) {
    return failure;
  }
  applications.clear();
  for (Application& application : loaded) {
    if (!application.name.empty()) {
      applications.emplace(application.name, std::move(application));
    }
  }
  if (asked != nullptr) {
    *asked = common::SteadyNow();
  }
  if (const std::uint32_t status = LoadDeletions(deletions); Failed(status)) {
    return status;
  }
  VYN_LOG_INFO("Metadata of " << applications.size() << " applications read, epoch " << mEpoch);
  return VYN_OK;
}

std::uint32_t MetadataStore::LoadDeletions(Deletions& deletions) {
  // Read only the lists of live nodes. A node that is down or has lost its session drops its whole cache
  // before it answers from it again, and its list may be long.
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  VYN_CHECK_POINTER(adapter);
  std::vector<std::string> nodes;
  int result = zookeeper::Children(adapter->mNodePath, nodes);
  for (std::size_t i = 0; i < nodes.size() && result == ZOK; ++i) {
    const std::string list = std::string(kReclaimPath) + "/" + nodes[i];
    std::vector<std::string> names;
    result = zookeeper::Children(list, names);
    for (std::size_t n = 0; n < names.size() && result == ZOK; ++n) {
      std::string text;
      ReclaimEntry entry;
      result = zookeeper::Get(list + "/" + names[n], text);
      if (result == ZOK && ReclaimEntry::FromText(text, entry) && entry.IsPlausible() && !entry.forgotten) {
        const bool all = entry.variablePath.empty();
        deletions[{entry.application, all ? kAllVariables : std::int64_t{entry.variableId}}].push_back(
            list + "/" + names[n]);
      }
      result = result == ZNONODE ? static_cast<int>(ZOK) : result;  // the node has processed it meanwhile
    }
    result = result == ZNONODE ? static_cast<int>(ZOK) : result;
  }
  return result == ZOK || result == ZNONODE ? VYN_OK : StoreFailure(result, "read the reclaim lists");
}

std::uint32_t MetadataStore::LoadApplication(const std::string& name, Application& application) {
  const std::string path = AppPath(name);
  std::string text;
  int result = zookeeper::Get(path, text);
  std::vector<std::string> children;
  if (result == ZOK) {
    result = zookeeper::Children(path, children);
  }
  if (result == ZNONODE) {
    return VYN_OK;  // it was deleted meanwhile
  }
  if (result != ZOK) {
    return StoreFailure(result, "read " + path);
  }
  application.name = name;
  const auto json = ParseJson(text);
  if (NumberField(json, kFormatField, 1) > kRecordFormat) {
    VYN_LOG_ERROR("The record " << path << " was written by a newer build, this one cannot read it");
    return kStatusNewerRecord;
  }
  application.heartbeat = FlagField(json, "heartbeat");
  if (FlagField(json, kRemovedFlag)) {
    // An earlier leader did not complete the removal.
    application.name.clear();
    std::vector<std::string> entries;
    return RemoveApplication(name, entries);
  }
  for (const std::string& child : children) {
    if (child == kTokenName) {
      continue;
    }
    Variable variable;
    bool deleted = false;
    variable.path = path + "/" + child;
    if (!ParseVariableId(child, variable.id)) {
      VYN_LOG_WARN("The record " << variable.path << " is no variable's, it is not served");
      continue;
    }
    if (const std::uint32_t status = LoadVariable(variable.path, variable, deleted); Failed(status)) {
      return status;
    }
    if (deleted) {
      continue;
    }
    const auto [kept, added] = application.variables.try_emplace(variable.id, std::move(variable));
    if (!added) {
      if (const std::uint32_t status = RemoveDuplicate(name, kept->second, variable); Failed(status)) {
        return status;
      }
    }
  }
  return VYN_OK;
}

std::uint32_t MetadataStore::RemoveDuplicate(const std::string& application, Variable& kept,
                                             Variable& other) {
  if (other.ready && !kept.ready) {
    std::swap(kept, other);
  }
  VYN_LOG_WARN("Variable " << kept.path << " has two records, " << other.path << " is deleted");
  std::vector<std::string> entries;
  return RemoveVariable(application, other, entries);
}

std::uint32_t MetadataStore::LoadVariable(const std::string& path, Variable& variable, bool& deleted) {
  VariableRecord record;
  switch (ReadVariableRecord(path, record)) {
    case RecordRead::kFailed:
    case RecordRead::kUnanswered:
      return kStatusStore;
    case RecordRead::kNewer:
      return kStatusNewerRecord;
    case RecordRead::kAbsent:
      if (record.state == RecordState::kReady) {
        VYN_LOG_ERROR("A piece of the record " << path << " is missing, the variable is not served");
      }  // otherwise its owner has deleted it meanwhile
      deleted = true;
      return VYN_OK;
    case RecordRead::kDamaged:
      deleted = true;  // do not serve it; ReadVariableRecord has logged it
      return VYN_OK;
    case RecordRead::kRead:
      break;
  }
  deleted = record.state == RecordState::kDeleted;
  variable.blockNum = record.blockNum;
  variable.pieces = record.pieces;
  variable.list = record.list;
  variable.writer = record.writer;
  variable.ready = record.state == RecordState::kReady;
  variable.nodeId = record.blocks.nodeId;
  variable.bmIds = std::move(record.blocks.bmIds);
  variable.sizes = std::move(record.blocks.sizes);
  return VYN_OK;
}

}  // namespace vyn::services
