// The applications of MetadataState: their heartbeats and their end.

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "services/common/service_status.h"
#include "services/metadata/metadata_state.h"
#include "vyn/status.h"

#include <algorithm>

namespace vyn::services {

namespace {

/// The most names of one request that are looked up in ZooKeeper. Each costs a read.
constexpr std::size_t kMaxUnknown = 500;

bool IsSilent(const Application& application, std::chrono::milliseconds timeout) {
  return application.heartbeat && common::SteadyNow() - application.lastBeat > timeout;
}

}  // namespace

std::uint32_t MetadataState::RemoveApplication(const std::string& application) {
  sync::MutexLock write(WriteLock(application));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  return Remove(application);
}

std::uint32_t MetadataState::Expire(const std::string& application, std::chrono::milliseconds timeout,
                                    bool& removed) {
  removed = false;
  sync::MutexLock write(WriteLock(application));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  {
    sync::ReaderLock lock(mMutex);
    const auto app = mApplications.find(application);
    if (app == mApplications.end() || !IsSilent(app->second, timeout)) {
      return VYN_OK;
    }
  }
  const std::uint32_t status = Remove(application);
  removed = !Failed(status);
  return status;
}

std::uint32_t MetadataState::Remove(const std::string& application) {
  // Do it for an unknown application too: a node may hold the namespace of an application without variables.
  std::vector<std::string> entries;
  if (const std::uint32_t status = mStore.RemoveApplication(application, entries); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  mApplications.erase(application);
  RememberDeleted({application, MetadataStore::kAllVariables}, entries);
  return VYN_OK;
}

std::uint32_t MetadataState::HeartBeat(const std::string& application, bool alive) {
  {
    sync::WriterLock lock(mMutex);
    const auto app = mApplications.find(application);
    if (app != mApplications.end() && app->second.heartbeat) {
      app->second.lastBeat = common::SteadyNow();
      return VYN_OK;
    }
  }
  sync::MutexLock write(WriteLock(application));
  if (mStore.LeadershipLost()) {
    return kStatusNotLeading;
  }
  if (!alive) {
    return VYN_OK;
  }
  bool registered = false;
  if (const std::uint32_t status = mStore.IsRegistered(application, registered);
      Failed(status) || !registered) {
    return status;
  }
  if (const std::uint32_t status = EnsureApplication(application); Failed(status)) {
    return status;
  }
  if (const std::uint32_t status = mStore.MarkHeartbeat(application); Failed(status)) {
    return status;
  }
  sync::WriterLock lock(mMutex);
  Application& beating = mApplications[application];
  beating.heartbeat = true;
  beating.lastBeat = common::SteadyNow();
  return VYN_OK;
}

std::vector<std::string> MetadataState::Silent(std::chrono::milliseconds timeout) const {
  std::vector<std::string> names;
  sync::ReaderLock lock(mMutex);
  for (const auto& [name, application] : mApplications) {
    if (IsSilent(application, timeout)) {
      names.push_back(name);
    }
  }
  return names;
}

void MetadataState::ExtendHeartbeatDeadlines(std::chrono::steady_clock::duration gap) {
  sync::WriterLock lock(mMutex);
  for (auto& [name, application] : mApplications) {
    application.lastBeat += gap;
  }
}

std::uint32_t MetadataState::FilterKnown(const std::vector<std::string>& applications,
                                         std::vector<std::string>& known) {
  std::size_t unknown = 0;
  for (const std::string& name : applications) {
    bool here = false;
    {
      sync::ReaderLock lock(mMutex);
      here = mApplications.count(name) != 0;
    }
    if (!here && ++unknown > kMaxUnknown) {
      return kStatusTooLarge;
    }
    if (!here) {
      if (const std::uint32_t status = mStore.IsRegistered(name, here); Failed(status)) {
        return status;
      }
    }
    if (here) {
      known.push_back(name);
    }
  }
  return VYN_OK;
}

}  // namespace vyn::services
