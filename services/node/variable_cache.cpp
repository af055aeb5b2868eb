#include "services/node/variable_cache.h"

#include "common/log/logging.h"

#include <new>

namespace vyn::services {

namespace {

using tessel::BroadcastBlockInfo;

/// The most queued look-ups. The queue grows this long only while no leader answers.
constexpr std::size_t kMaxQueued = 10000;

void Answer(const Caller& caller, const BroadcastBlockInfo& variable) {
  common::Ref<BroadcastBlockInfo> response(new (std::nothrow) BroadcastBlockInfo());
  if (response == nullptr) {
    caller.Refuse(VYN_ERR_NULL_POINTER);
    return;
  }
  response->appId = variable.appId;
  response->broadcastId = variable.broadcastId;
  response->bmIds = variable.bmIds;
  response->sizes = variable.sizes;
  response->nodeId = variable.nodeId;
  caller.Answer(response);
}

/// Whether the leader's refusal may be outdated when it arrives: the driver may have completed the variable
/// since.
bool MayBeOutdated(std::uint32_t status) {
  return status == kStatusUnknownVariable || status == kStatusNotReady;
}

}  // namespace

void VariableCache::Fetch(const std::string& application, std::uint32_t id, const Caller& caller) {
  LookUp lookUp({application, id}, 0);
  common::Ref<BroadcastBlockInfo> known;
  bool tooMany = false;
  const bool mayAnswer = !mMayAnswer || mMayAnswer();
  {
    sync::MutexLock lock(mMutex);
    if (const auto found = mVariables.find(lookUp.first); mayAnswer && found != mVariables.end()) {
      known = found->second;
    } else {
      lookUp.second = mForgets;
      const auto [waiting, first] = mWaiting.try_emplace(lookUp);
      waiting->second.callers.push_back(caller);
      waiting->second.strict = waiting->second.strict || !mayAnswer;
      if (!first) {
        return;
      }
      if (mThreads < mMaxThreads) {
        ++mThreads;
      } else if (mQueued.size() < kMaxQueued) {
        mQueued.push_back(lookUp);
        return;
      } else {
        mWaiting.erase(waiting);
        tooMany = true;
      }
    }
  }
  if (known != nullptr) {
    Answer(caller, *known);
  } else if (tooMany) {
    caller.Refuse(kStatusNoLeader);
  } else {
    RunAll(lookUp);
  }
}

void VariableCache::RunAll(LookUp lookUp) {
  std::uint32_t status = Run(lookUp);
  while (TakeQueued(lookUp)) {
    if (Failed(status) && !MayBeOutdated(status)) {
      RefuseQueued(lookUp, status);
    } else {
      status = Run(lookUp);
    }
  }
}

bool VariableCache::TakeQueued(LookUp& lookUp) {
  sync::MutexLock lock(mMutex);
  if (mQueued.empty()) {
    --mThreads;
    return false;
  }
  lookUp = std::move(mQueued.front());
  mQueued.pop_front();
  return true;
}

void VariableCache::RefuseQueued(const LookUp& lookUp, std::uint32_t status) {
  std::vector<Caller> waiting;
  {
    sync::MutexLock lock(mMutex);
    waiting = std::move(mWaiting.extract(lookUp).mapped().callers);
  }
  for (const Caller& caller : waiting) {
    caller.Refuse(status);
  }
}

std::uint32_t VariableCache::Run(const LookUp& lookUp) {
  for (;;) {
    std::vector<Caller> before;
    {
      sync::MutexLock lock(mMutex);
      Waiting& waiting = mWaiting.at(lookUp);
      before.swap(waiting.callers);
      waiting.strict = false;
    }
    const common::Ref<BroadcastBlockInfo> found(new (std::nothrow) BroadcastBlockInfo());
    const std::uint32_t status = Ask(lookUp, found);
    std::vector<Caller> since;
    bool again = false;
    {
      sync::MutexLock lock(mMutex);
      const auto joined = mWaiting.find(lookUp);
      const bool outdated = MayBeOutdated(status) || (!Failed(status) && joined->second.strict);
      again = outdated && !joined->second.callers.empty();
      if (!again) {
        since.swap(joined->second.callers);
        mWaiting.erase(joined);
      }
    }
    for (const auto* callers : {&before, &since}) {
      for (const Caller& caller : *callers) {
        if (Failed(status)) {
          caller.Refuse(status);
        } else {
          Answer(caller, *found);
        }
      }
    }
    if (!again) {
      return status;
    }
  }
}

std::uint32_t VariableCache::Ask(const LookUp& lookUp, const common::Ref<BroadcastBlockInfo>& found) {
  const auto& [application, id] = lookUp.first;
  if (found == nullptr) {
    return VYN_ERR_NULL_POINTER;
  }
  try {
    const std::uint32_t status = mAskLeader(application, id, *found);
    sync::MutexLock lock(mMutex);
    if (!Failed(status) && mForgets == lookUp.second) {
      mVariables[lookUp.first] = found;
    }
    return status;
  } catch (const std::exception& failure) {
    VYN_LOG_ERROR("The look-up of variable " << id << " of " << application << " failed: " << failure.what());
    return VYN_ERR_NULL_POINTER;
  }
}

std::vector<std::string> VariableCache::Forget(const std::string& application, std::uint32_t id) {
  sync::MutexLock lock(mMutex);
  ++mForgets;
  const auto known = mVariables.extract(Key(application, id));
  return known ? known.mapped()->bmIds : std::vector<std::string>();
}

void VariableCache::Forget(const std::string& application) {
  sync::MutexLock lock(mMutex);
  ++mForgets;
  for (auto variable = mVariables.lower_bound(Key(application, 0));
       variable != mVariables.end() && variable->first.first == application;) {
    variable = mVariables.erase(variable);
  }
}

std::vector<std::string> VariableCache::ForgetAll() {
  std::map<Key, common::Ref<BroadcastBlockInfo>> known;
  {
    sync::MutexLock lock(mMutex);
    ++mForgets;
    known.swap(mVariables);
  }
  std::vector<std::string> bmIds;
  for (const auto& [key, variable] : known) {
    bmIds.insert(bmIds.end(), variable->bmIds.begin(), variable->bmIds.end());
  }
  return bmIds;
}

}  // namespace vyn::services
