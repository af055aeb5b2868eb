#include "services/metadata/nodes/fabric_view.h"

#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/json_fields.h"
#include "services/common/zookeeper_io.h"
#include "services/common/zookeeper_layout.h"
#include "vyn/status.h"

#include <algorithm>
#include <chrono>

namespace vyn::services {

namespace {

constexpr auto kPeriod = std::chrono::seconds(1);
constexpr auto kIdlePeriod = std::chrono::seconds(10);
/// How long a thread waits for a Refresh that another thread runs.
constexpr auto kShareLimit = std::chrono::seconds(5);
/// The pause after a failure is 1, 2, 4 and from this many failures in a row on 8 seconds.
constexpr unsigned int kMostFailures = 4;

}  // namespace

FabricView::~FabricView() { Stop(); }

void FabricView::Start() {
  Stop();
  static_cast<void>(Refresh());
  mTask.Start({"The nodes of the fabric could not be read", Pause()}, [this] {
    static_cast<void>(Refresh());
    mTask.SetPeriod(Pause());
  });
}

void FabricView::Stop() { mTask.Stop(); }

void FabricView::SetServing(bool serving) {
  {
    sync::MutexLock lock(mMutex);
    if (mServing == serving) {
      return;
    }
    mServing = serving;
  }
  mTask.Wake();
}

std::chrono::nanoseconds FabricView::Pause() const {
  sync::MutexLock lock(mMutex);
  return std::max<std::chrono::nanoseconds>(mNextTry - common::SteadyNow(), mServing ? kPeriod : kIdlePeriod);
}

bool FabricView::RefreshOlderThan(std::chrono::milliseconds age) {
  {
    sync::MutexLock lock(mMutex);
    const auto now = common::SteadyNow();
    if (!mReading && (now - mRead < age || now < mNextTry)) {
      return false;
    }
  }
  return Refresh();
}

bool FabricView::Refresh() {
  const auto begin = common::SteadyNow();
  {
    sync::MutexLock lock(mMutex);
    if (mReading) {
      const std::uint64_t before = mReadings;
      return common::WaitFor(mChanged, lock, kShareLimit,
                             [&]() VYN_REQUIRES(mMutex) { return mReadings != before; }) &&
             mLastAnswered;
    }
    mReading = true;
  }
  Nodes nodes;
  bool answered = false;
  try {
    answered = Read(nodes);
  } catch (const std::exception& failure) {  // probably bad_alloc; the next Refresh may succeed
    VYN_LOG_ERROR("The nodes of the fabric could not be read: " << failure.what());
  }
  {
    sync::MutexLock lock(mMutex);
    mReading = false;
    ++mReadings;
    mLastAnswered = answered;
    if (answered) {
      mNodes = std::move(nodes);
      mRead = begin;
      mNextTry = {};
      mFailures = 0;
    } else {
      mFailures = std::min(mFailures + 1, kMostFailures);
      mNextTry = common::SteadyNow() + kPeriod * (1U << mFailures) / 2;
    }
  }
  mChanged.NotifyAll();
  return answered;
}

bool FabricView::Read(Nodes& nodes) {
  const auto adapter = cluster::ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  if (adapter == nullptr || VynGetZkHandle() == nullptr) {
    return false;  // the fabric node accepts connections before this process has a ZooKeeper session
  }
  std::vector<std::string> names;
  const int result = zookeeper::Children(adapter->mNodePath, names);
  if (result != ZOK && result != ZNONODE) {
    return false;
  }
  for (const std::string& name : names) {
    std::uint32_t id = 0;
    cluster::NodeInfo node;
    if (!ParseId(name, id)) {
      continue;
    }
    if (Failed(adapter->ClusterZKGetNodeInfo(id, node))) {
      if (zookeeper::Exists(adapter->mNodePath + "/" + name) != ZNONODE) {
        return false;  // the znode exists but could not be read: do not treat the node as gone
      }
    } else {
      // A node that has just started may have no capacity record yet. It counts as full until it has one.
      static_cast<void>(adapter->ClusterZKGetMemInfo(id, node));
      nodes.live.emplace(id, std::move(node));
    }
  }
  names.clear();
  const int listed = zookeeper::Children(kNodesPath, names);
  if (listed != ZOK && listed != ZNONODE) {
    return false;
  }
  for (const std::string& name : names) {
    std::uint32_t id = 0;
    std::string text;
    if (!ParseId(name, id)) {
      continue;
    }
    if (const int got = zookeeper::Get(NodePath(id), text); got == ZOK) {
      nodes.registered.emplace(id, TextField(ParseJson(text), "host"));
    } else if (got != ZNONODE) {
      return false;
    }
  }
  return true;
}

bool FabricView::Find(std::uint32_t nodeId, cluster::NodeInfo& node) {
  for (bool again : {true, false}) {
    {
      sync::MutexLock lock(mMutex);
      if (const auto found = mNodes.live.find(nodeId); found != mNodes.live.end()) {
        node = found->second;
        return true;
      }
    }
    if (!again || !RefreshOlderThan(kPeriod)) {
      return false;
    }
  }
  return false;
}

std::vector<cluster::NodeInfo> FabricView::Live() const {
  sync::MutexLock lock(mMutex);
  std::vector<cluster::NodeInfo> nodes;
  nodes.reserve(mNodes.live.size());
  for (const auto& [id, node] : mNodes.live) {
    nodes.push_back(node);
  }
  return nodes;
}

std::map<std::uint32_t, std::string> FabricView::Registered() const {
  sync::MutexLock lock(mMutex);
  return mNodes.registered;
}

}  // namespace vyn::services
