#include "services/metadata/metadata_state.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "common/wait/retry.h"
#include "services/common/service_status.h"
#include "vyn/status.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <unordered_set>

namespace vyn::services {

namespace {

/// How long NewVariable and RemoveVariable wait for the nodes, and the time between two checks.
constexpr auto kForgetLimit = std::chrono::seconds(5);
constexpr auto kForgetPause = std::chrono::milliseconds(10);
/// So many calls may wait. The others look once, so that workers are left for calls that need no node.
constexpr unsigned int kMaxWaiting = 8;

/// How many deletions one SweepDeleted looks at.
constexpr std::size_t kSweep = 20;

bool IsComplete(const Variable& variable) {
  return variable.ready && variable.bmIds.size() == variable.blockNum;
}

/// Returns: the id of the first block of the writer that has the number; empty when nobody has told it.
std::string WriterOf(const Variable& variable) {
  if (!variable.ready) {
    return variable.writer;
  }
  return variable.bmIds.empty() ? "" : variable.bmIds.front();
}

/// Whether another writer has claimed the number than the one that has the blocks of `info`.
bool IsOthers(const Variable& variable, const tessel::BroadcastBlockInfo& info) {
  return !variable.ready && !variable.writer.empty() &&
         (info.bmIds.empty() || info.bmIds.front() != variable.writer);
}

}  // namespace

std::uint32_t MetadataState::Load(std::chrono::steady_clock::time_point* asked,
                                  std::chrono::milliseconds extra) {
  std::map<std::string, Application> applications;
  MetadataStore::Deletions deletions;
  if (const std::uint32_t status = mStore.Open(applications, deletions, asked); Failed(status)) {
    return status;
  }
  // This leader does not know when the last heartbeats arrived, so each application gets the whole time-out,
  // and more when its driver may need longer than that to find this leader.
  const auto now = common::SteadyNow();
  for (auto& [name, application] : applications) {
    application.lastBeat = now + extra;
    for (const auto& [id, variable] : application.variables) {
      application.blocks += variable.blockNum;
    }
  }
  sync::WriterLock lock(mMutex);
  mApplications = std::move(applications);
  mDeleted = std::move(deletions);
  return VYN_OK;
}

sync::Mutex& MetadataState::WriteLock(const std::string& application) {
  return mWriteLocks[std::hash<std::string>()(application) % mWriteLocks.size()];
}

bool MetadataState::Find(const std::string& application, std::uint32_t id, Variable& variable) const {
  sync::ReaderLock lock(mMutex);
  const auto app = mApplications.find(application);
  if (app == mApplications.end()) {
    return false;
  }
  const auto found = app->second.variables.find(id);
  if (found == app->second.variables.end()) {
    return false;
  }
  variable = found->second;
  return true;
}

std::uint32_t MetadataState::EnsureApplication(const std::string& application) {
  {
    sync::ReaderLock lock(mMutex);
    if (mApplications.count(application) != 0) {
      return VYN_OK;
    }
  }
  if (const std::uint32_t status = mStore.AddApplication(application); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  Application& added = mApplications[application];
  added.name = application;
  added.lastBeat = common::SteadyNow();
  return VYN_OK;
}

std::uint32_t MetadataState::NewVariable(const std::string& application, std::uint32_t id,
                                         std::uint32_t blockNum, const std::string& writer) {
  if (blockNum > tessel::kMaxBlocks) {
    return kStatusTooLarge;
  }
  if (Failed(AwaitForgotten(application, MetadataStore::kAllVariables)) ||
      Failed(AwaitForgotten(application, id))) {
    return kStatusNotForgotten;
  }
  sync::MutexLock write(WriteLock(application));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  Variable variable;
  if (Find(application, id, variable)) {
    const bool repeated =
        variable.blockNum == blockNum && (WriterOf(variable) == writer || (writer.empty() && variable.ready));
    return repeated ? VYN_OK : kStatusVariableExists;
  }
  if (!NodeThatRemembers({application, id}).empty() ||
      !NodeThatRemembers({application, MetadataStore::kAllVariables}).empty()) {
    return kStatusNotForgotten;  // it was created and deleted again since the wait
  }
  if (!HasRoom(application, blockNum)) {
    return kStatusLimit;
  }
  if (const std::uint32_t status = EnsureApplication(application); Failed(status)) {
    return status;
  }
  variable.id = id;
  variable.blockNum = blockNum;
  variable.writer = writer;
  if (const std::uint32_t status = mStore.AddVariable(application, variable); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  Application& owner = mApplications[application];
  owner.variables[id] = std::move(variable);
  owner.blocks += blockNum;
  return VYN_OK;
}

bool MetadataState::HasRoom(const std::string& application, std::uint32_t blockNum) const {
  sync::ReaderLock lock(mMutex);
  const auto app = mApplications.find(application);
  const std::size_t variables = app == mApplications.end() ? 0 : app->second.variables.size();
  const std::uint64_t blocks = app == mApplications.end() ? 0 : app->second.blocks;
  return variables < mLimits.variables && blocks + blockNum <= mLimits.blocks;
}

std::uint32_t MetadataState::RemoveVariable(const std::string& application, std::uint32_t id,
                                            bool onlyUnpublished) {
  return RemoveRecord(application, id, [&](const Variable& variable) -> std::uint32_t {
    const bool stays = IsComplete(variable) || !variable.writer.empty();
    return onlyUnpublished && stays ? kStatusVariableExists : VYN_OK;
  });
}

std::uint32_t MetadataState::GiveUp(const std::string& application, std::uint32_t id,
                                    const std::string& writer, bool published) {
  bool others = false;
  const std::uint32_t status = RemoveRecord(application, id, [&](const Variable& variable) -> std::uint32_t {
    if (WriterOf(variable).empty()) {
      return kStatusNotReady;
    }
    others = WriterOf(variable) != writer;
    return others || (IsComplete(variable) && !published) ? kStatusVariableExists : VYN_OK;
  });
  return others ? VYN_OK : status;
}

std::uint32_t MetadataState::RemoveRecord(const std::string& application, std::uint32_t id,
                                          const std::function<std::uint32_t(const Variable&)>& mayRemove) {
  const std::uint32_t status = RemoveRecordNow(application, id, mayRemove);
  if (!Failed(status)) {
    // The variable is deleted, also when a node does not forget it in time. Then NewVariable waits for it.
    static_cast<void>(AwaitForgotten(application, id));
  }
  return status;
}

std::uint32_t MetadataState::RemoveRecordNow(const std::string& application, std::uint32_t id,
                                             const std::function<std::uint32_t(const Variable&)>& mayRemove) {
  sync::MutexLock write(WriteLock(application));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  Variable variable;
  if (!Find(application, id, variable)) {
    return VYN_OK;  // deleted before
  }
  if (const std::uint32_t status = mayRemove(variable); Failed(status)) {
    return status;
  }
  std::vector<std::string> entries;
  if (const std::uint32_t status = mStore.RemoveVariable(application, variable, entries); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  Application& owner = mApplications[application];
  owner.variables.erase(id);
  owner.blocks -= variable.blockNum;
  RememberDeleted({application, id}, entries);
  return VYN_OK;
}

void MetadataState::RememberDeleted(const MetadataStore::Deletions::key_type& deleted,
                                    const std::vector<std::string>& entries) {
  if (!entries.empty()) {
    std::vector<std::string>& all = mDeleted[deleted];
    all.insert(all.end(), entries.begin(), entries.end());
  }
}

std::string MetadataState::NodeThatRemembers(const MetadataStore::Deletions::key_type& deleted) {
  std::vector<std::string> entries;
  {
    sync::ReaderLock lock(mMutex);
    const auto found = mDeleted.find(deleted);
    if (found == mDeleted.end()) {
      return "";
    }
    entries = found->second;
  }
  std::string node = MetadataStore::NodeThatRemembers(entries);
  sync::WriterLock lock(mMutex);
  const auto found = mDeleted.find(deleted);
  // The entries differ if another variable of this number was deleted meanwhile.
  if (node.empty() && found != mDeleted.end() && found->second == entries) {
    mDeleted.erase(found);
  }
  return node;
}

std::uint32_t MetadataState::AwaitForgotten(const std::string& application, std::int64_t id) {
  const bool waits = mWaiting.fetch_add(1) < kMaxWaiting;
  const std::shared_ptr<void> waiting(nullptr, [this](void*) { --mWaiting; });
  auto retry = common::Retry::For(kForgetLimit, kForgetPause);
  std::string node;
  do {
    node = NodeThatRemembers({application, id});
    if (node.empty()) {
      return VYN_OK;
    }
  } while (waits && retry.Again());
  const std::string what = id < 0 ? "application " : "variable " + std::to_string(id) + " of ";
  VYN_LOG_WARN("Node " << node << " has not forgotten the deleted " << what << application << " yet");
  return kStatusNotForgotten;
}

void MetadataState::SweepDeleted() {
  std::vector<MetadataStore::Deletions::key_type> some;
  {
    sync::ReaderLock lock(mMutex);
    auto next = mDeleted.upper_bound(mSwept);
    for (; next != mDeleted.end() && some.size() < kSweep; ++next) {
      some.push_back(next->first);
    }
  }
  mSwept = {};
  for (const auto& deleted : some) {
    mSwept = deleted;
    if (!NodeThatRemembers(deleted).empty()) {
      return;
    }
  }
}

std::uint32_t MetadataState::WriteBlocks(const std::string& application, Variable variable) {
  if (variable.bmIds.size() > tessel::kMaxBlocks) {
    return kStatusTooLarge;
  }
  variable.ready = true;
  variable.writer.clear();
  if (const std::uint32_t status = mStore.SetBlocks(application, variable); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  mApplications[application].variables[variable.id] = std::move(variable);
  return VYN_OK;
}

std::uint32_t MetadataState::SetBlocks(const tessel::BroadcastBlockInfo& info) {
  sync::MutexLock write(WriteLock(info.appId));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  Variable variable;
  if (!Find(info.appId, info.broadcastId, variable)) {
    return kStatusUnknownVariable;
  }
  if (variable.blockNum != info.bmIds.size()) {
    return kStatusInvalidRequest;
  }
  if (variable.ready) {
    return variable.bmIds == info.bmIds && variable.sizes == info.sizes ? VYN_OK : kStatusVariableExists;
  }
  if (IsOthers(variable, info)) {
    return kStatusVariableExists;
  }
  variable.nodeId = info.nodeId;
  variable.bmIds = info.bmIds;
  variable.sizes = info.sizes;
  return WriteBlocks(info.appId, std::move(variable));
}

std::uint32_t MetadataState::AddBlocks(const tessel::BroadcastBlockInfo& info) {
  sync::MutexLock write(WriteLock(info.appId));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  Variable variable;
  if (!Find(info.appId, info.broadcastId, variable)) {
    return kStatusUnknownVariable;
  }
  if (IsOthers(variable, info)) {
    return kStatusVariableExists;
  }
  if (variable.ready && variable.nodeId != info.nodeId) {
    return kStatusInvalidRequest;  // all blocks of a variable must be on one node
  }
  if (info.bmIds.size() > variable.blockNum) {
    return kStatusInvalidRequest;
  }
  std::unordered_set<std::string> known(variable.bmIds.begin(), variable.bmIds.end());
  for (std::size_t i = 0; i < info.bmIds.size(); ++i) {
    if (known.insert(info.bmIds[i]).second) {
      variable.bmIds.push_back(info.bmIds[i]);
      variable.sizes.push_back(info.sizes[i]);
    }
  }
  if (variable.bmIds.size() > variable.blockNum) {
    return kStatusInvalidRequest;
  }
  variable.nodeId = info.nodeId;
  return WriteBlocks(info.appId, std::move(variable));
}

std::uint32_t MetadataState::GetVariable(const std::string& application, std::uint32_t id,
                                         tessel::BroadcastBlockInfo& info) const {
  Variable variable;
  if (!Find(application, id, variable)) {
    return kStatusUnknownVariable;
  }
  if (!IsComplete(variable)) {
    return kStatusNotReady;
  }
  info.appId = application;
  info.broadcastId = id;
  info.nodeId = variable.nodeId;
  info.bmIds = std::move(variable.bmIds);
  info.sizes = std::move(variable.sizes);
  return VYN_OK;
}

std::uint32_t MetadataState::GetBlock(const std::string& application, std::uint32_t id, std::uint32_t index,
                                      std::string& bmId) const {
  sync::ReaderLock lock(mMutex);
  const auto app = mApplications.find(application);
  if (app == mApplications.end()) {
    return kStatusUnknownVariable;
  }
  const auto variable = app->second.variables.find(id);
  if (variable == app->second.variables.end() || index >= variable->second.blockNum) {
    return kStatusUnknownVariable;
  }
  if (index >= variable->second.bmIds.size()) {
    return kStatusNotReady;
  }
  bmId = variable->second.bmIds[index];
  return VYN_OK;
}

}  // namespace vyn::services
