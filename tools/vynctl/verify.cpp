// `vynctl verify`: reads all copies of a variable's blocks, each on its own node, and compares them with the
// originals.

#include "cluster/cluster_zkadapter.h"
#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "platform/fabric/protocol/remote_node.h"
#include "platform/fabric/transport/link.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/variable_record.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "tools/vynctl/commands.h"
#include "vyn/status.h"

#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

namespace vyn::tools {

namespace {

using cluster::ClusterZKAdapter;
using nlohmann::json;

/// Finds the record of the variable. Throws CommandError when there is none with blocks.
void ReadRecord(const std::string& application, std::uint32_t id, services::VariableRecord& record) {
  const std::string what = "variable " + std::to_string(id) + " of application " + application;
  const std::string folder = services::AppPath(application);
  std::vector<std::string> names;
  const int result = services::zookeeper::Children(folder, names);
  if (result != ZOK && result != ZNONODE) {
    throw CommandError("cannot read " + folder + ": " + services::zookeeper::ResultText(result));
  }
  for (const std::string& name :
       names) {  // <id>.<unique text>; a deleted variable's may stand beside a new one's
    if (name.substr(0, name.find('.')) != std::to_string(id)) {
      continue;
    }
    const auto read = services::ReadVariableRecord(folder + "/" + name, record);
    if (read != services::RecordRead::kRead && read != services::RecordRead::kAbsent) {
      throw CommandError("the record of " + what +
                         (read == services::RecordRead::kDamaged ? " is damaged"
                          : read == services::RecordRead::kNewer ? " was written by a newer build"
                                                                 : " cannot be read from ZooKeeper"));
    }
    const bool readable =
        read == services::RecordRead::kRead && record.state != services::RecordState::kDeleted;
    if (readable && record.state == services::RecordState::kReady &&
        record.blocks.bmIds.size() == record.blockNum) {
      return;
    }
    if (readable) {
      throw CommandError("not published yet: " + what);
    }
  }
  throw CommandError("no such variable: " + what);
}

fabric::LinkSecurity SecurityOfLinks() {
  auto conf = common::Configuration::GetInstance();
  fabric::LinkSecurity security;
  security.report = [](const std::string& text) { std::fprintf(stderr, "vynctl: %s\n", text.c_str()); };
  if (conf->GetBool("vyn.tessel.rpc.enableTLS", true)) {
    std::map<std::string, const std::string> entries;
    std::string error;
    common::BaseApiUtil::GetPlxTlsConf4Client(conf, entries, true);
    static_cast<void>(common::BaseApiUtil::SetOpensslDLPath(conf));  // if this fails, the next line tells
    security.tls = tls::TlsContext::ForClient(entries, error);
    if (security.tls == nullptr) {
      throw CommandError("no link can be secured: " + error);
    }
  }
  return security;
}

struct Node {
  std::string host;
  std::unique_ptr<fabric::RemoteNode> link;
};

/// The nodes that are alive, by id.
std::map<std::uint32_t, Node> Nodes(const fabric::LinkSecurity& security) {
  std::map<std::uint32_t, Node> nodes;
  const auto adapter = ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SDK);
  std::vector<std::string> names;
  if (services::zookeeper::Children(adapter->mNodePath, names) != ZOK) {
    throw CommandError("cannot read the list of nodes from ZooKeeper");
  }
  for (const std::string& name : names) {
    cluster::NodeInfo info;
    std::uint32_t id = 0;
    if (!services::ParseId(name, id) || Failed(adapter->ClusterZKGetNodeInfo(id, info))) {
      continue;
    }
    auto connect = [host = info.ip, port = static_cast<std::uint16_t>(info.auxValue), security](
                       net::Deadline deadline, int& result) -> std::unique_ptr<fabric::ByteStream> {
      return fabric::ConnectLink(host, port, security, deadline, result);
    };
    nodes[id] = {info.hostName,
                 std::make_unique<fabric::RemoteNode>(std::move(connect), fabric::PeerRole::kClient, id)};
  }
  return nodes;
}

std::string ReasonOf(int result) {
  switch (result) {
    case -EACCES:
      return "wrong token";
    case -ENOENT:
      return "the block is gone";
    case kBmUnconnected:
      return "the node does not answer";
    default:
      return "result " + std::to_string(result);
  }
}

/// What was found on one node.
struct Findings {
  std::uint64_t blocks = 0;
  std::uint64_t bytes = 0;
  json wrong = json::array();

  void AddWrong(std::size_t block, const std::string& text) {
    wrong.push_back({{"block", block}, {"text", text}});
  }
};

}  // namespace

bool VerifyVariable(const Settings& settings, const std::string& application, std::uint32_t id) {
  LoadConfiguration(settings);
  ConnectZooKeeper();
  services::VariableRecord record;
  ReadRecord(application, id, record);
  std::map<std::uint32_t, Node> nodes = Nodes(SecurityOfLinks());
  const std::uint32_t ownerId = record.blocks.nodeId;
  if (nodes.count(ownerId) == 0) {
    throw CommandError("node " + std::to_string(ownerId) + ", which has the variable, is down");
  }
  std::map<std::uint32_t, Findings> findings;
  Progress progress("verify", record.blocks.bmIds.size());
  for (std::size_t block = 0; block < record.blocks.bmIds.size(); ++block, progress.Add(1)) {
    const fabric::ObjectName object{{application, settings.token}, record.blocks.bmIds[block]};
    fabric::ObjectState original;
    const int answer = nodes[ownerId].link->State(object, true, original);
    Findings& owner = findings[ownerId];
    ++owner.blocks;
    owner.bytes += original.size;
    if (answer != 0) {
      owner.AddWrong(block, ReasonOf(answer));
      continue;
    }
    if (original.size != record.blocks.sizes.at(block)) {
      owner.AddWrong(block, "it has " + std::to_string(original.size) + " bytes and the record says " +
                                std::to_string(record.blocks.sizes[block]));
    }
    for (auto& [nodeId, node] : nodes) {
      fabric::ObjectState copy;
      const int result = nodeId == ownerId ? -ENOENT : node.link->State(object, true, copy);
      if (result == -ENOENT) {
        continue;
      }
      Findings& found = findings[nodeId];
      ++found.blocks;
      found.bytes += copy.size;
      if (result != 0) {
        found.AddWrong(block, ReasonOf(result));
      } else if (!original.beingWritten &&
                 (copy.size != original.size || copy.checksum != original.checksum)) {
        found.AddWrong(block, copy.stamp == original.stamp && !copy.beingWritten
                                  ? "the copy is damaged"
                                  : "the copy is older than the block; its next use replaces it");
      }
    }
  }
  bool right = true;
  json answer = json::array();
  for (const auto& [nodeId, found] : findings) {
    right = right && found.wrong.empty();
    answer.push_back({{"node", nodeId},
                      {"host", nodes[nodeId].host},
                      {"owner", nodeId == ownerId},
                      {"blocks", found.blocks},
                      {"bytes", found.bytes},
                      {"wrong", found.wrong}});
    if (!settings.json) {
      std::printf("node %u (%s): %llu %s, %llu bytes, %s\n", nodeId, nodes[nodeId].host.c_str(),
                  static_cast<unsigned long long>(found.blocks), nodeId == ownerId ? "blocks" : "copies",
                  static_cast<unsigned long long>(found.bytes),
                  found.wrong.empty() ? "right" : (std::to_string(found.wrong.size()) + " wrong").c_str());
      for (const json& one : found.wrong) {
        std::printf("  block %zu: %s\n", one["block"].get<std::size_t>(),
                    one["text"].get<std::string>().c_str());
      }
    }
  }
  if (settings.json) {
    PrintJson({{"application", application}, {"variable", id}, {"right", right}, {"nodes", answer}});
  }
  return right;
}

}  // namespace vyn::tools
