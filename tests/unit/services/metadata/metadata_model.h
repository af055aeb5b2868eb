#pragma once

// What a metadata leader answers and keeps, in memory alone: the other side of the model test.

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
  };
  explicit Model(ApplicationLimits limits) : mLimits(limits) {}

  const Variable* Find(const std::string& app, std::uint32_t id) const {
    const auto variable = mVariables.find({app, id});
    return variable == mVariables.end() ? nullptr : &variable->second;
  }
  std::uint32_t Written() {
    mWrote = true;
    return 0;
  }
  std::uint32_t NewVariable(const std::string& app, std::uint32_t id, std::uint32_t blocks) {
    if (blocks > tessel::kMaxBlocks) {
      return kStatusTooLarge;
    }
    if (const Variable* variable = Find(app, id)) {
      return variable->blockNum == blocks ? 0 : kStatusVariableExists;
    }
    std::uint64_t sum = blocks;
    std::size_t count = 0;
    for (const auto& [key, variable] : mVariables) {
      sum += key.first == app ? variable.blockNum : 0;
      count += key.first == app ? 1 : 0;
    }
    if (sum > mLimits.blocks || count == mLimits.variables) {
      return kStatusLimit;
    }
    mApplications.insert(app);
    mVariables[{app, id}].blockNum = blocks;
    return Written();
  }
  std::uint32_t SetBlocks(const tessel::BroadcastBlockInfo& info) {
    const Variable* variable = Find(info.appId, info.broadcastId);
    if (variable == nullptr || variable->blockNum != info.bmIds.size()) {
      return variable == nullptr ? kStatusUnknownVariable : kStatusInvalidRequest;
    }
    if (variable->ready) {
      return variable->bmIds == info.bmIds ? 0 : kStatusVariableExists;
    }
    mVariables[{info.appId, info.broadcastId}] = {variable->blockNum, info.nodeId, true, info.bmIds};
    return Written();
  }
  std::uint32_t AddBlocks(const tessel::BroadcastBlockInfo& info) {
    const Variable* variable = Find(info.appId, info.broadcastId);
    if (variable == nullptr) {
      return kStatusUnknownVariable;
    }
    Variable changed{variable->blockNum, info.nodeId, true, variable->bmIds};
    const std::set<std::string> known(changed.bmIds.begin(), changed.bmIds.end());
    std::copy_if(info.bmIds.begin(), info.bmIds.end(), std::back_inserter(changed.bmIds),
                 [&](const std::string& bmId) { return !known.contains(bmId); });
    if ((variable->ready && variable->node != info.nodeId) || info.bmIds.size() > variable->blockNum ||
        changed.bmIds.size() > variable->blockNum) {
      return kStatusInvalidRequest;
    }
    mVariables[{info.appId, info.broadcastId}] = changed;
    return Written();
  }
  std::uint32_t RemoveVariable(const std::string& app, std::uint32_t id) {
    const auto variable = mVariables.extract({app, id});
    if (!variable) {
      return 0;
    }
    for (std::uint32_t node = 1; node <= 2 && variable.mapped().ready; ++node) {
      mEntries.insert({node, app, id, node == variable.mapped().node});
    }
    return Written();
  }
  std::uint32_t RemoveApplication(const std::string& app) {
    mApplications.erase(app);
    std::erase_if(mVariables, [&](const auto& variable) { return variable.first.first == app; });
    mEntries.insert({{1, app, 0, false}, {2, app, 0, false}});
    return Written();
  }
  const ApplicationLimits mLimits;
  bool mWrote = false;
  std::set<std::string> mApplications;
  std::map<std::pair<std::string, std::uint32_t>, Variable> mVariables;
  /// What the nodes are told: node, application, variable, whether the node holds the blocks.
  std::multiset<std::tuple<std::uint32_t, std::string, std::uint32_t, bool>> mEntries;
};

}  // namespace vyn::services
