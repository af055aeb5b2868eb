#include "services/node/reclaimer.h"

#include "common/log/logging.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"

#include <cerrno>
#include <chrono>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::milliseconds(500);

}  // namespace

Reclaimer::Reclaimer(std::uint16_t nodeId, fabric::FabricNode& fabric,
                     std::function<void(const ReclaimEntry& entry)> forget)
    : mNodeId(nodeId), mFabric(fabric), mForget(std::move(forget)) {}

Reclaimer::~Reclaimer() { Stop(); }

void Reclaimer::Start() {
  mTask.Start({"This node's reclaim list could not be processed", kPeriod, true}, [this] {
    FreeGivenBack();
    Drain();
  });
}

void Reclaimer::Stop() {
  mTask.Stop();
  FreeGivenBack();
}

void Reclaimer::GiveBack(const std::string& application, const std::vector<std::string>& bmIds) {
  {
    sync::MutexLock lock(mMutex);
    mGivenBack.emplace_back(application, bmIds);
  }
  mTask.Wake();
}

void Reclaimer::FreeGivenBack() {
  std::vector<std::pair<std::string, std::vector<std::string>>> given;
  {
    sync::MutexLock lock(mMutex);
    given.swap(mGivenBack);
  }
  for (const auto& [application, bmIds] : given) {
    mFabric.FreeBatch(application, bmIds);  // the application may have ended meanwhile
  }
}

bool Reclaimer::Drain(const std::string& application) {
  const std::string list = ReclaimPath(mNodeId);
  std::vector<std::string> names;
  const int listed = zookeeper::Children(list, names);
  if (listed != ZOK) {
    return listed == ZNONODE;
  }
  bool done = true;
  for (const std::string& name : names) {
    if (mTask.Stopping()) {
      return false;
    }
    FreeGivenBack();
    const EntryResult outcome = DrainEntry(list + "/" + name, application);
    if (outcome == EntryResult::kUnanswered) {
      return false;  // ZooKeeper would hardly answer for the next entry, and each attempt takes a time-out
    }
    done = done && outcome != EntryResult::kLater;
  }
  return done;
}

Reclaimer::EntryResult Reclaimer::DrainEntry(const std::string& path, const std::string& application) {
  sync::MutexLock draining(mDraining);
  std::string text;
  if (const int result = zookeeper::Get(path, text); result != ZOK) {
    return result == ZNONODE                ? EntryResult::kDone
           : zookeeper::IsUncertain(result) ? EntryResult::kUnanswered
                                            : EntryResult::kLater;
  }
  ReclaimEntry entry;
  if (!ReclaimEntry::FromText(text, entry)) {
    if (mReportedKept.insert(path).second) {
      VYN_LOG_ERROR("The entry " << path << " cannot be read by this build and is kept: " << text);
    }
    return EntryResult::kKept;
  }
  if (!entry.IsPlausible()) {
    VYN_LOG_ERROR("The entry " << path << " names no variable of its application and is deleted: " << text);
    static_cast<void>(zookeeper::Delete(path));
    return EntryResult::kDone;
  }
  if (!application.empty() && entry.application != application) {
    return EntryResult::kDone;
  }
  const EntryResult outcome = Handle(path, entry);
  if (outcome != EntryResult::kDone) {
    return outcome;
  }
  mReportedKept.erase(entry.variablePath);
  mNotifiedEntries.erase(path);
  const int deleted = zookeeper::Delete(path);
  return deleted == ZOK || deleted == ZNONODE ? EntryResult::kDone : EntryResult::kLater;
}

Reclaimer::EntryResult Reclaimer::Handle(const std::string& path, const ReclaimEntry& entry) {
  // Call mForget once for an entry of a variable: the entry may stay for long, and a new variable may
  // meanwhile use the number. A second call would drop the new one from the cache.
  if (mForget && (entry.variablePath.empty() || mNotifiedEntries.insert(path).second)) {
    mForget(entry);
  }
  if (entry.variablePath.empty()) {
    const int result = mFabric.DestroyNamespace(entry.application);
    VYN_LOG_INFO("Application " << entry.application << " has ended; destroying its namespace gave "
                                << result);
    return result == 0 || result == -ENOENT ? EntryResult::kDone : EntryResult::kLater;
  }
  return entry.owner ? FreeVariable(entry) : EntryResult::kDone;
}

Reclaimer::EntryResult Reclaimer::FreeVariable(const ReclaimEntry& entry) {
  VariableRecord record;
  RecordRead read = ReadVariableRecord(entry.variablePath, record);
  if (read == RecordRead::kAbsent) {
    // Either the record was deleted before, or a piece of its block list is missing.
    const int result = zookeeper::Exists(entry.variablePath);
    if (result == ZNONODE) {
      return EntryResult::kDone;
    }
    read = result == ZOK                    ? RecordRead::kDamaged
           : zookeeper::IsUncertain(result) ? RecordRead::kUnanswered
                                            : RecordRead::kFailed;
  }
  if (read == RecordRead::kUnanswered || read == RecordRead::kFailed) {
    return read == RecordRead::kUnanswered ? EntryResult::kUnanswered : EntryResult::kLater;
  }
  if (read != RecordRead::kRead) {
    // What cannot be read is never deleted: a newer build may have written it. It goes with its application.
    if (mFabric.CheckToken(entry.application, "") == -ENOENT) {
      return EntryResult::kDone;  // this node has no block of it
    }
    if (mReportedKept.insert(entry.variablePath).second) {
      VYN_LOG_ERROR("The blocks of " << entry.variablePath << " cannot be freed because its record is "
                                     << (read == RecordRead::kNewer ? "of a newer build" : "damaged")
                                     << "; they stay until application " << entry.application << " ends");
    }
    return EntryResult::kKept;
  }
  mFabric.FreeBatch(entry.application, record.blocks.bmIds);  // ignores objects that do not exist any more
  return zookeeper::DeleteTree(entry.variablePath) == ZOK ? EntryResult::kDone : EntryResult::kLater;
}

}  // namespace vyn::services
