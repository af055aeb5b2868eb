// `vynctl node forget`, and the wait until the nodes have freed what an application had.

#include "cluster/cluster_zkadapter.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tools/vynctl/commands.h"

#include <chrono>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

namespace vyn::tools {

namespace {

namespace zookeeper = services::zookeeper;
using cluster::ClusterZKAdapter;

/// How long to wait for the nodes. A node processes its reclaim list twice a second.
constexpr auto kFreeLimit = std::chrono::seconds(60);

/// Throws CommandError unless `result` is ZOK or ZNONODE. Returns: whether it is ZOK.
bool Found(int result, const std::string& path) {
  if (result != ZOK && result != ZNONODE) {
    throw CommandError("ZooKeeper at " + path + ": " + zookeeper::ResultText(result));
  }
  return result == ZOK;
}

std::vector<std::string> Names(const std::string& path) {
  std::vector<std::string> names;
  Found(zookeeper::Children(path, names), path);
  return names;
}

/// Whether the node still has to free something of the application.
bool HasToFree(std::uint32_t nodeId, const std::string& application) {
  const std::string list = services::ReclaimPath(nodeId);
  for (const std::string& name : Names(list)) {
    std::string text;
    services::ReclaimEntry entry;
    if (Found(zookeeper::Get(list + "/" + name, text), list) &&
        services::ReclaimEntry::FromText(text, entry) && entry.application == application) {
      return true;
    }
  }
  return false;
}

/// Removes what the node's reclaim list asks for and nobody else can do: the records of deleted variables.
void DropReclaimList(std::uint32_t nodeId) {
  const std::string list = services::ReclaimPath(nodeId);
  for (const std::string& name : Names(list)) {
    const std::string path = list + "/" + name;
    std::string text;
    services::ReclaimEntry entry;
    if (!Found(zookeeper::Get(path, text), path)) {
      continue;
    }
    if (!services::ReclaimEntry::FromText(text, entry)) {
      throw CommandError(path + " was written by a newer build: use the vynctl of that build");
    }
    if (entry.owner && !entry.variablePath.empty() && entry.IsPlausible()) {
      Found(zookeeper::DeleteTree(entry.variablePath), entry.variablePath);
    }
    Found(zookeeper::Delete(path), path);
  }
  Found(zookeeper::DeleteTree(list), list);
}

}  // namespace

void AwaitFreed(const std::string& application) {
  const auto adapter = ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK);
  const auto end = std::chrono::steady_clock::now() + kFreeLimit;
  for (const std::string& name : Names(adapter->mNodePath)) {
    std::uint32_t id = 0;
    while (services::ParseId(name, id) && HasToFree(id, application)) {
      if (std::chrono::steady_clock::now() > end) {
        throw CommandError("application " + application + " is removed, but node " + name +
                           " has not freed its memory within " + std::to_string(kFreeLimit.count()) +
                           " s: look at the log of that node");
      }
      common::SleepFor(std::chrono::milliseconds(100));
    }
  }
}

void ForgetNode(const Settings& settings, std::uint32_t nodeId) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  const auto adapter = ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK);
  const std::string name = std::to_string(nodeId);
  const std::string live = adapter->mNodePath + "/" + name;
  if (Found(zookeeper::Exists(live), live)) {
    throw CommandError("node " + name + " is running: stop its vynd first");
  }
  const std::string record = services::NodePath(nodeId);
  const bool known = Found(zookeeper::Exists(record), record);
  if (!known && !Found(zookeeper::Exists(services::ReclaimPath(nodeId)), services::ReclaimPath(nodeId))) {
    throw CommandError("there is no node " + name);
  }
  const std::vector<std::string> lost = VariablesOn(nodeId);
  DropReclaimList(nodeId);
  Found(zookeeper::Delete(record), record);
  if (settings.json) {
    PrintJson({{"forgotten", nodeId}, {"lost", lost}});
    return;
  }
  std::printf("node %u forgotten\n", nodeId);
  for (const std::string& variable : lost) {
    std::printf("variable %s is lost with it: remove it with `vynctl rm`\n", variable.c_str());
  }
}

}  // namespace vyn::tools
