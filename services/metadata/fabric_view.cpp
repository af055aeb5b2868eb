#include "services/metadata/fabric_view.h"

#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "vyn/status.h"

#include <charconv>
#include <chrono>
#include <nlohmann/json.hpp>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);

bool ToNodeId(const std::string& name, std::uint32_t& id) {
  const char* end = name.data() + name.size();
  const auto [rest, error] = std::from_chars(name.data(), end, id);
  return error == std::errc() && rest == end;
}

/// The host name in a node's persistent record, empty when the record is damaged.
std::string HostOf(const std::string& record) {
  const auto json = nlohmann::json::parse(record, nullptr, false);
  const auto host = json.is_object() ? json.find("host") : json.end();
  return json.is_object() && host != json.end() && host->is_string() ? host->get<std::string>() : "";
}

}  // namespace

FabricView::~FabricView() { Stop(); }

void FabricView::Start() {
  Stop();
  mStopping = false;
  mThread = std::thread([this] { Run(); });
}

void FabricView::Stop() {
  {
    std::lock_guard lock(mMutex);
    mStopping = true;
  }
  mWake.notify_all();
  if (mThread.joinable()) {
    mThread.join();
  }
}

void FabricView::Run() {
  for (;;) {
    Refresh();
    std::unique_lock lock(mMutex);
    if (mWake.wait_for(lock, kPeriod, [this] { return mStopping; })) {
      return;
    }
  }
}

bool FabricView::RefreshOlderThan(std::chrono::milliseconds age) {
  const auto asked = common::SteadyNow();
  std::lock_guard refreshing(mRefreshing);
  {
    std::lock_guard lock(mMutex);
    if (mRead >= asked) {
      return true;  // read while this one waited
    }
    if (asked - mRead < age) {
      return false;
    }
  }
  return Refresh();
}

bool FabricView::Refresh() {
  const auto begin = common::SteadyNow();
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  if (adapter == nullptr) {
    return false;
  }
  std::vector<std::string> names;
  const int result = zookeeper::Children(adapter->mNodePath, names);
  if (result != ZOK && result != ZNONODE) {
    return false;
  }
  std::map<std::uint32_t, cluster::NodeInfo> live;
  for (const std::string& name : names) {
    std::uint32_t id = 0;
    cluster::NodeInfo node;
    if (!ToNodeId(name, id)) {
      continue;
    }
    if (Failed(adapter->ClusterZKGetNodeInfo(id, node))) {
      if (zookeeper::Exists(adapter->mNodePath + "/" + name) != ZNONODE) {
        return false;  // a node that is there and cannot be read is not gone
      }
    } else {
      // A node that has just come has no capacity record yet; it counts as full until it has.
      static_cast<void>(adapter->ClusterZKGetMemInfo(id, node));
      live.emplace(id, std::move(node));
    }
  }
  std::map<std::uint32_t, std::string> registered;
  names.clear();
  const int listed = zookeeper::Children(kNodesPath, names);
  if (listed != ZOK && listed != ZNONODE) {
    return false;
  }
  for (const std::string& name : names) {
    std::uint32_t id = 0;
    std::string text;
    if (!ToNodeId(name, id)) {
      continue;
    }
    if (const int got = zookeeper::Get(NodePath(id), text); got == ZOK) {
      registered.emplace(id, HostOf(text));
    } else if (got != ZNONODE) {
      return false;
    }
  }
  std::lock_guard lock(mMutex);
  mLive = std::move(live);
  mRegistered = std::move(registered);
  mRead = begin;
  return true;
}

std::vector<cluster::NodeInfo> FabricView::Live() const {
  std::lock_guard lock(mMutex);
  std::vector<cluster::NodeInfo> nodes;
  nodes.reserve(mLive.size());
  for (const auto& [id, node] : mLive) {
    nodes.push_back(node);
  }
  return nodes;
}

std::map<std::uint32_t, std::string> FabricView::Registered() const {
  std::lock_guard lock(mMutex);
  return mRegistered;
}

}  // namespace vyn::services
