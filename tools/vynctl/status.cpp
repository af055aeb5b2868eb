#include "vyn/status.h"

#include "cluster/cluster_zkadapter.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tools/vynctl/commands.h"
#include "vyn/broadcast.h"

#include <cstdio>
#include <nlohmann/json.hpp>
#include <set>
#include <vector>

namespace vyn::tools {

namespace {

using cluster::ClusterZKAdapter;
namespace zookeeper = services::zookeeper;
using nlohmann::json;

constexpr double kGiB = 1024.0 * 1024.0 * 1024.0;

std::string StatusName(const std::string& text) {
  if (text == "1") {
    return "configured";
  }
  if (text == "2") {
    return "alive";
  }
  return text == "3" ? "broken" : text;
}

std::vector<std::string> Children(const std::string& path) {
  std::vector<std::string> names;
  const int result = zookeeper::Children(path, names);
  if (result != ZOK && result != ZNONODE) {
    throw CommandError("cannot read " + path + ": " + zookeeper::ResultText(result));
  }
  return names;
}

/// The variables of an application, without their contents.
json Variables(const std::string& application) {
  json variables = json::array();
  for (const std::string& name : Children(services::AppPath(application))) {
    services::VariableRecord record;
    std::uint32_t id = 0;
    if (!services::ParseVariableId(name, id) ||
        services::ReadVariableRecord(services::AppPath(application) + "/" + name, record) !=
            services::RecordRead::kRead ||
        record.state == services::RecordState::kDeleted) {
      continue;
    }
    std::uint64_t bytes = 0;
    for (const std::uint64_t size : record.blocks.sizes) {
      bytes += size;
    }
    variables.push_back(
        {{"id", id},
         {"blocks", record.blockNum},
         {"bytes", bytes},
         {"ready", record.state == services::RecordState::kReady},
         {"node", record.state == services::RecordState::kReady ? json(record.blocks.nodeId) : json()}});
  }
  return variables;
}

json Applications() {
  json applications = json::array();
  for (const std::string& name : Children(services::kAppsPath)) {
    applications.push_back({{"name", name}, {"variables", Variables(name)}});
  }
  return applications;
}

json Collect() {
  const auto adapter = ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK);
  std::string leader;
  static_cast<void>(zookeeper::Get(ClusterZKAdapter::mMetaLeaderPath, leader));
  json members = json::array();
  for (const std::string& name : Children(ClusterZKAdapter::mMetaStatusPath)) {
    std::string text;
    static_cast<void>(zookeeper::Get(ClusterZKAdapter::mMetaStatusPath + "/" + name, text));
    members.push_back({{"address", name}, {"status", StatusName(text)}, {"leader", name == leader}});
  }
  json nodes = json::array();
  std::set<std::string> live;
  for (const std::string& name : Children(adapter->mNodePath)) {
    cluster::NodeInfo node;
    std::uint32_t id = 0;
    if (!services::ParseId(name, id) || Failed(adapter->ClusterZKGetNodeInfo(id, node))) {
      continue;
    }
    live.insert(name);
    static_cast<void>(adapter->ClusterZKGetMemInfo(id, node));
    nodes.push_back({{"id", id},
                     {"host", node.hostName},
                     {"address", node.ip + ":" + std::to_string(node.auxValue)},
                     {"live", true},
                     {"capacity", node.capacityA},
                     {"used", node.capacityA - node.capacityB}});
  }
  for (const std::string& name : Children(services::kNodesPath)) {
    std::string text;
    std::uint32_t id = 0;
    if (live.count(name) == 0 && services::ParseId(name, id) &&
        zookeeper::Get(std::string(services::kNodesPath) + "/" + name, text) == ZOK) {
      const json node = services::ParseJson(text);
      nodes.push_back({{"id", id},
                       {"host", services::TextField(node, "host")},
                       {"address", services::TextField(node, "ip")},
                       {"live", false},
                       {"capacity", 0},
                       {"used", 0}});
    }
  }
  return {{"leader", leader}, {"members", members}, {"nodes", nodes}, {"applications", Applications()}};
}

std::string Text(const json& value) { return value.get<std::string>(); }

void PrintApplications(const json& applications) {
  std::printf("%-32s %10s %8s %14s %6s %s\n", "APPLICATION", "VARIABLE", "BLOCKS", "BYTES", "NODE", "STATE");
  for (const json& application : applications) {
    if (application["variables"].empty()) {
      std::printf("%-32s %10s\n", Text(application["name"]).c_str(), "-");
    }
    for (const json& variable : application["variables"]) {
      std::printf(
          "%-32s %10u %8u %14llu %6s %s\n", Text(application["name"]).c_str(),
          variable["id"].get<unsigned int>(), variable["blocks"].get<unsigned int>(),
          static_cast<unsigned long long>(variable["bytes"].get<std::uint64_t>()),
          variable["node"].is_null() ? "-" : std::to_string(variable["node"].get<unsigned int>()).c_str(),
          variable["ready"].get<bool>() ? "ready" : "no blocks yet");
    }
  }
}

}  // namespace

bool ShowStatus(const Settings& settings) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  const json status = Collect();
  const bool led = !Text(status["leader"]).empty();
  if (settings.json) {
    PrintJson(status);
    return led;
  }
  std::printf("LEADER  %s\n\n", led ? Text(status["leader"]).c_str() : "none");
  std::printf("%-24s %s\n", "MEMBER", "STATUS");
  for (const json& member : status["members"]) {
    std::printf("%-24s %s%s\n", Text(member["address"]).c_str(), Text(member["status"]).c_str(),
                member["leader"].get<bool>() ? ", leads" : "");
  }
  std::printf("\n%-6s %-24s %-22s %10s %10s\n", "NODE", "HOST", "ADDRESS", "POOL", "USED");
  for (const json& node : status["nodes"]) {
    const std::string id = std::to_string(node["id"].get<unsigned int>());
    if (node["live"].get<bool>()) {
      std::printf("%-6s %-24s %-22s %6.2f GiB %6.2f GiB\n", id.c_str(), Text(node["host"]).c_str(),
                  Text(node["address"]).c_str(),
                  static_cast<double>(node["capacity"].get<std::uint64_t>()) / kGiB,
                  static_cast<double>(node["used"].get<std::uint64_t>()) / kGiB);
    } else {
      std::printf("%-6s %-24s %-22s %10s\n", id.c_str(), Text(node["host"]).c_str(),
                  Text(node["address"]).c_str(), "down");
    }
  }
  std::printf("\n");
  PrintApplications(status["applications"]);
  return led;
}

void ListApplications(const Settings& settings) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  const json applications = Applications();
  if (settings.json) {
    PrintJson({{"applications", applications}});
  } else {
    PrintApplications(applications);
  }
}

std::vector<std::string> VariablesOn(std::uint32_t nodeId) {
  std::vector<std::string> found;
  for (const json& application : Applications()) {
    for (const json& variable : application["variables"]) {
      if (variable["node"] == nodeId) {
        found.push_back(std::to_string(variable["id"].get<std::uint32_t>()) + " of " +
                        Text(application["name"]));
      }
    }
  }
  return found;
}

void RemoveApplication(const Settings& settings, const std::string& application, bool wait) {
  LoadConfiguration(settings);
  StartSdk(settings, true);
  // The metadata service reports success for an application that does not exist, because a repeated call must
  // succeed. A user wants to know, so check for it here.
  const int found = zookeeper::Exists(services::AppPath(application));
  Require(MarkBroadcastApplicationCompleted(application.c_str()), "removing application " + application);
  if (found == ZNONODE) {
    throw CommandError("there is no application " + application);
  }
  if (wait) {
    AwaitFreed(application);
  }
  if (settings.json) {
    PrintJson({{"removed", application}});
  } else {
    std::printf("application %s removed\n", application.c_str());
  }
}

}  // namespace vyn::tools
