#pragma once

// What a metadata leader answers and keeps, in memory alone: the other side of the model test.

#include "common/util/clock.h"
#include "services/common/service_status.h"
#include "services/metadata/metadata_state.h"
#include "support/test.h"

namespace vyn::services {

/// The model: it answers as a leader does, and notes whether it has written.
struct Model {
  struct Variable {
    std::uint32_t blockNum = 0, node = 0;
    bool ready = false;
    std::vector<std::string> bmIds;
    std::vector<std::uint64_t> sizes;
  };
  struct Application {
    bool heartbeat = false;
    std::chrono::steady_clock::time_point lastBeat;
    std::map<std::uint32_t, Variable> variables;
  };

  explicit Model(ApplicationLimits limits) : mLimits(limits) {}

  Variable* Find(const std::string& app, std::uint32_t id) {
    const auto application = mApplications.find(app);
    return application == mApplications.end() || !application->second.variables.contains(id)
               ? nullptr
               : &application->second.variables[id];
  }
  std::uint32_t Written() {
    mWrote = true;
    return 0;
  }
  std::uint32_t NewVariable(const std::string& app, std::uint32_t id, std::uint32_t blocks) {
    if (const Variable* variable = Find(app, id); blocks > MetadataStore::kMaxBlocks || variable != nullptr) {
      return blocks > MetadataStore::kMaxBlocks ? kStatusTooLarge
             : variable->blockNum == blocks     ? 0
                                                : kStatusVariableExists;
    }
    std::uint64_t sum = blocks;
    std::size_t count = 0;
    if (const auto application = mApplications.find(app); application != mApplications.end()) {
      for (const auto& [number, variable] : application->second.variables) {
        sum += variable.blockNum;
        ++count;
      }
    }
    if (sum > mLimits.blocks || count == mLimits.variables) {
      return kStatusLimit;
    }
    mApplications[app].variables[id].blockNum = blocks;
    return Written();
  }
  std::uint32_t SetBlocks(const tessel::BroadcastBlockInfo& info) {
    Variable* variable = Find(info.appId, info.broadcastId);
    if (variable == nullptr || variable->blockNum != info.bmIds.size()) {
      return variable == nullptr ? kStatusUnknownVariable : kStatusInvalidRequest;
    }
    if (variable->ready) {
      return variable->bmIds == info.bmIds && variable->sizes == info.sizes ? 0 : kStatusVariableExists;
    }
    *variable = {variable->blockNum, info.nodeId, true, info.bmIds, info.sizes};
    return Written();
  }
  std::uint32_t AddBlocks(const tessel::BroadcastBlockInfo& info) {
    Variable* variable = Find(info.appId, info.broadcastId);
    if (variable == nullptr) {
      return kStatusUnknownVariable;
    }
    Variable changed{variable->blockNum, info.nodeId, true, variable->bmIds, variable->sizes};
    const std::set<std::string> known(changed.bmIds.begin(), changed.bmIds.end());
    for (std::size_t i = 0; i < info.bmIds.size(); ++i) {
      if (!known.contains(info.bmIds[i])) {
        changed.bmIds.push_back(info.bmIds[i]);
        changed.sizes.push_back(info.sizes[i]);
      }
    }
    if ((variable->ready && variable->node != info.nodeId) || info.bmIds.size() > variable->blockNum ||
        changed.bmIds.size() > variable->blockNum) {
      return kStatusInvalidRequest;
    }
    *variable = changed;
    return Written();
  }
  std::uint32_t RemoveVariable(const std::string& app, std::uint32_t id) {
    if (const Variable* variable = Find(app, id)) {
      for (std::uint32_t node = 1; node <= 2 && variable->ready; ++node) {
        mEntries.insert({node, app, id, node == variable->node});
      }
      mApplications[app].variables.erase(id);
      return Written();
    }
    return 0;
  }
  std::uint32_t RemoveApplication(const std::string& app) {
    mApplications.erase(app);
    mEntries.insert({{1, app, 0, false}, {2, app, 0, false}});
    return Written();
  }
  std::uint32_t Expire(const std::string& app, std::chrono::milliseconds timeout, bool& removed) {
    const auto silent = Silent(timeout);
    removed = std::find(silent.begin(), silent.end(), app) != silent.end();
    return removed ? RemoveApplication(app) : 0;
  }
  std::uint32_t HeartBeat(const std::string& app, bool alive) {
    const auto application = mApplications.find(app);
    if (application != mApplications.end() && (alive || application->second.heartbeat)) {
      mWrote = !std::exchange(application->second.heartbeat, true);
      application->second.lastBeat = common::SteadyNow();
    }
    return 0;
  }
  void ExtendHeartbeatDeadlines(std::chrono::steady_clock::duration gap) {
    for (auto& [name, application] : mApplications) {
      application.lastBeat += gap;
    }
  }
  std::uint32_t GetVariable(const std::string& app, std::uint32_t id, tessel::BroadcastBlockInfo& info) {
    const Variable* variable = Find(app, id);
    if (variable == nullptr || !variable->ready || variable->bmIds.size() != variable->blockNum) {
      return variable == nullptr ? kStatusUnknownVariable : kStatusNotReady;
    }
    info.nodeId = variable->node;
    info.bmIds = variable->bmIds;
    info.sizes = variable->sizes;
    return 0;
  }
  std::uint32_t GetBlock(const std::string& app, std::uint32_t id, std::uint32_t index, std::string& bmId) {
    const Variable* variable = Find(app, id);
    if (variable == nullptr || index >= variable->bmIds.size()) {
      return variable == nullptr || index >= variable->blockNum ? kStatusUnknownVariable : kStatusNotReady;
    }
    bmId = variable->bmIds[index];
    return 0;
  }
  std::uint32_t Known(const std::vector<std::string>& names, std::vector<std::string>& known) {
    std::copy_if(names.begin(), names.end(), std::back_inserter(known),
                 [&](const std::string& name) { return mApplications.contains(name); });
    return 0;
  }
  std::vector<std::string> Silent(std::chrono::milliseconds timeout) {
    std::vector<std::string> names;
    for (const auto& [name, application] : mApplications) {
      if (application.heartbeat && common::SteadyNow() - application.lastBeat > timeout) {
        names.push_back(name);
      }
    }
    return names;
  }

  const ApplicationLimits mLimits;
  bool mWrote = false;
  std::map<std::string, Application> mApplications;
  /// What the nodes are told: node, application, variable, whether the node holds the blocks.
  std::multiset<std::tuple<std::uint32_t, std::string, std::uint32_t, bool>> mEntries;
};

}  // namespace vyn::services
