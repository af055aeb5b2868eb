#include "services/node/reclaimer.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"

#include <cerrno>
#include <chrono>

namespace vyn::services {

namespace {

constexpr auto kReclaimPeriod = std::chrono::milliseconds(500);
/// How long one Drain frees memory before it looks for new entries.
constexpr auto kFreeSlice = std::chrono::milliseconds(100);

/// The reclaimers that a watch may wake. A watch can outlive its reclaimer. Never destroyed.
sync::Mutex& gWatchingMutex = *new sync::Mutex;
std::set<void*>& gWatching VYN_GUARDED_BY(gWatchingMutex) = *new std::set<void*>;

}  // namespace

void Reclaimer::WakeReclaimer(zhandle_t*, int, int, const char*, void* reclaimer) {
  sync::MutexLock lock(gWatchingMutex);
  if (gWatching.contains(reclaimer)) {
    static_cast<Reclaimer*>(reclaimer)->mTask.Wake();
  }
}

Reclaimer::Reclaimer(std::uint16_t nodeId, fabric::FabricNode& fabric,
                     std::function<void(const ReclaimEntry& entry)> forget)
    : mNodeId(nodeId), mFabric(fabric), mForget(std::move(forget)) {
  sync::MutexLock lock(gWatchingMutex);
  gWatching.insert(this);
}

Reclaimer::~Reclaimer() {
  Stop();
  sync::MutexLock lock(gWatchingMutex);
  gWatching.erase(this);
}

void Reclaimer::Start() {
  mTask.Start({"This node's reclaim list could not be processed", kReclaimPeriod, true}, [this] {
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

int Reclaimer::List(std::vector<std::string>& names, bool watched) {
  const std::string list = ReclaimPath(mNodeId);
  return zookeeper::Children(list, names, watched ? WakeReclaimer : nullptr, this);
}

bool Reclaimer::Drain(const std::string& application) {
  Progress progress;
  progress.application = application;
  do {
    std::vector<std::string> names;
    if (const int listed = List(names, application.empty()); listed != ZOK) {
      return listed == ZNONODE;
    }
    // New entries come before the memory of old ones: a caller waits until they are forgotten.
    ForgetAll(names, progress);
    FreeSome(progress);
  } while (progress.outcome != EntryResult::kUnanswered && !progress.unfreed.empty() && !mTask.Stopping());
  return progress.outcome == EntryResult::kDone && progress.unfreed.empty();
}

void Reclaimer::ForgetAll(const std::vector<std::string>& names, Progress& progress) {
  for (const std::string& name : names) {
    const std::string path = ReclaimPath(mNodeId) + "/" + name;
    if (mTask.Stopping() || progress.outcome == EntryResult::kUnanswered) {
      return;
    }
    if (!progress.seen.insert(path).second) {
      continue;
    }
    Note(ForgetEntry(path, progress.application), path, progress);
  }
}

void Reclaimer::FreeSome(Progress& progress) {
  const auto end = common::SteadyNow() + kFreeSlice;
  while (!progress.unfreed.empty() && common::SteadyNow() < end && !mTask.Stopping() &&
         progress.outcome != EntryResult::kUnanswered) {
    FreeGivenBack();
    const std::string path = std::move(progress.unfreed.front());
    progress.unfreed.pop_front();
    Note(FreeEntry(path), path, progress);
  }
}

void Reclaimer::Note(EntryResult outcome, const std::string& path, Progress& progress) {
  if (outcome == EntryResult::kUnfreed) {
    progress.unfreed.push_back(path);
  } else if (outcome == EntryResult::kLater || outcome == EntryResult::kUnanswered) {
    // After kUnanswered ZooKeeper would hardly answer for the next entry, and each attempt takes a time-out.
    progress.outcome = outcome;
  }
}

Reclaimer::EntryResult Reclaimer::ReadEntry(const std::string& path, ReclaimEntry& entry, bool& gone) {
  std::string text;
  const int result = zookeeper::Get(path, text);
  gone = result == ZNONODE;
  if (result != ZOK) {
    return gone                             ? EntryResult::kDone
           : zookeeper::IsUncertain(result) ? EntryResult::kUnanswered
                                            : EntryResult::kLater;
  }
  if (!ReclaimEntry::FromText(text, entry)) {
    if (mReportedKept.insert(path).second) {
      VYN_LOG_ERROR("The entry " << path << " cannot be read by this build and is kept: " << text);
    }
    return EntryResult::kKept;
  }
  if (!entry.IsPlausible()) {
    VYN_LOG_ERROR("The entry " << path << " names no variable of its application and is deleted: " << text);
    static_cast<void>(zookeeper::Delete(path));
    gone = true;
  }
  return EntryResult::kDone;
}

Reclaimer::EntryResult Reclaimer::ForgetEntry(const std::string& path, const std::string& application) {
  sync::MutexLock draining(mDraining);
  ReclaimEntry entry;
  bool gone = false;
  if (const EntryResult read = ReadEntry(path, entry, gone); gone || read != EntryResult::kDone) {
    return read;
  }
  if (!application.empty() && entry.application != application) {
    return EntryResult::kDone;
  }
  if (entry.forgotten) {
    return EntryResult::kUnfreed;  // a new variable may use the number, and must not be forgotten
  }
  if (mForget) {
    mForget(entry);
  }
  entry.forgotten = true;
  const bool unfreed = entry.owner || entry.variablePath.empty();
  const int result = unfreed ? zookeeper::Set(path, entry.ToText()) : zookeeper::Delete(path);
  if (result != ZOK && result != ZNONODE) {
    return zookeeper::IsUncertain(result) ? EntryResult::kUnanswered : EntryResult::kLater;
  }
  return unfreed ? EntryResult::kUnfreed : EntryResult::kDone;
}

Reclaimer::EntryResult Reclaimer::FreeEntry(const std::string& path) {
  sync::MutexLock draining(mDraining);
  ReclaimEntry entry;
  bool gone = false;
  // Another thread may have processed it meanwhile, and the application may be registered anew.
  if (const EntryResult read = ReadEntry(path, entry, gone); gone || read != EntryResult::kDone) {
    return read;
  }
  EntryResult outcome = EntryResult::kDone;
  if (entry.variablePath.empty()) {
    const int result = mFabric.DestroyNamespace(entry.application);
    VYN_LOG_INFO("Application " << entry.application << " has ended; destroying its namespace gave "
                                << result);
    outcome = result == 0 || result == -ENOENT ? EntryResult::kDone : EntryResult::kLater;
  } else if (entry.owner) {
    outcome = FreeVariable(entry);
  }
  if (outcome != EntryResult::kDone) {
    return outcome;
  }
  mReportedKept.erase(entry.variablePath);
  const int deleted = zookeeper::Delete(path);
  return deleted == ZOK || deleted == ZNONODE ? EntryResult::kDone : EntryResult::kLater;
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
