#include "services/metadata/metadata_member.h"

#include "common/log/log.h"
#include "common/log/logging.h"
#include "common/util/clock.h"
#include "platform/zk_helper/zk_helper.h"
#include "services/common/service_status.h"
#include "services/common/zookeeper_io.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace vyn::services {

namespace {

using cluster::ClusterZKAdapter;
using common::MetaNodeRole;

/// The time between two checks of the leader znode.
constexpr auto kMemberPeriod = std::chrono::milliseconds(200);
/// How long this node stays out of the election after it won and could not serve, so that another node can
/// win. Longer when it cannot read the records of a newer build: it could not serve the next time either.
constexpr auto kClaimPause = std::chrono::seconds(2);
constexpr auto kOlderBuildPause = std::chrono::seconds(15);

std::string OwnFollowerPath(const std::string& address) {
  return ClusterZKAdapter::mMetaFollowerPath + "/" + address;
}

}  // namespace

MetadataMember::MetadataMember(MetadataMemberOptions options) : mOptions(std::move(options)) {}

MetadataMember::~MetadataMember() { Stop(); }

std::uint32_t MetadataMember::Start() {
  mAdapter = ClusterZKAdapter::GetInstance(cluster::NODE_ROLE_SERVER);
  VYN_CHECK_POINTER(mAdapter);
  mRecord = common::MetaNodeInfo::GetInstance();
  VYN_CHECK_POINTER(mRecord);
  mRecord->mNodeAddress = mOptions.nodeAddress;
  std::map<std::string, common::MetaNodeStatus> nodes;
  std::string list = mOptions.nodeList;
  VYN_CHECK_CALL(ClusterZKAdapter::PutMetaIntoContainer(list, ",", nodes));
  nodes.erase("");
  for (const auto& [name, status] : nodes) {
    mRecord->mConfiguredNodes.push_back(name);
  }
  mElectable = nodes.count(mOptions.nodeAddress) != 0;
  {
    sync::WriterLock lock(mRecord->mNodeStatusLock);
    mRecord->mNodeStatusMap = nodes;
  }
  if (!mElectable) {
    VYN_LOG_WARN(mOptions.nodeAddress << " is not in vyn.tessel.meta.node_lists: this node never leads");
  }
  VYN_CHECK_CALL(mAdapter->ClusterZKMakeDir());
  BuildStatusTree();
  mView.Start();
  mTask.Start({"The metadata member's step failed", kMemberPeriod, true}, [this] { Step(); });
  return VYN_OK;
}

void MetadataMember::Stop() {
  if (!mTask.Stop()) {
    return;
  }
  // Delete the leader znode first, so that a successor can win while running calls finish here. The successor
  // raises the epoch, after which ZooKeeper refuses their writes.
  ClusterZKAdapter::isRunning = false;
  GiveUpClaim();
  EndLeading();
  Stat stat{};
  if (zookeeper::Exists(OwnFollowerPath(mOptions.nodeAddress), &stat) == ZOK && zookeeper::IsOwn(stat)) {
    ClusterZKAdapter::ZKTryDeleteMetaElectionFollower(OwnFollowerPath(mOptions.nodeAddress));
  }
  mView.Stop();
}

void MetadataMember::Step() {
  const auto asked = common::SteadyNow();
  const std::uint32_t available = mAdapter->ClusterZKCheckAvailable();
  if (available == VYN_ERR_ZK_SESSION_EXPIRED || VynGetZkHandle() == nullptr) {
    KeepSession();
    return;
  }
  if (!mPrepared) {
    PrepareSession();
    if (!mPrepared) {
      return;
    }
  }
  // A failed call takes until the ZooKeeper client gives up its connection. So do not make a second call
  // after one.
  Stat stat{};
  const int result = Failed(available) ? static_cast<int>(ZCONNECTIONLOSS)
                                       : zookeeper::Exists(ClusterZKAdapter::mMetaLeaderPath, &stat);
  const auto now = common::SteadyNow();
  if (result == ZNONODE) {
    mLastAnswer = asked;
    EndLeading();
    if (mElectable && now >= mNextClaim) {
      // Ignore the status of the round: the leader znode decides who leads.
      static_cast<void>(ClusterZKAdapter::ZKElectionOperate(mRecord));
      if (zookeeper::Exists(ClusterZKAdapter::mMetaLeaderPath, &stat) == ZOK && zookeeper::IsOwn(stat)) {
        BeginLeading();
      }
    }
    return;
  }
  if (result != ZOK) {
    if (mService != nullptr && now - mLastAnswer > Lease()) {
      VYN_LOG_WARN("ZooKeeper has not answered for half of the session time-out, this node stops leading");
      EndLeading();
    }
    return;
  }
  mLastAnswer = asked;
  if (zookeeper::IsOwn(stat)) {
    BeginLeading();
  } else {
    EndLeading();
    Follow();
  }
  // Before RegisterWatches: it may block on the mutex znode, and watch callbacks would block with it.
  KeepOwnStatus();
  RegisterWatches();
}

void MetadataMember::KeepSession() {
  EndLeading();
  mPrepared = mWatching = mCaughtUp = false;
  VYN_LOG_WARN("The ZooKeeper session has expired, opening a new one");
  if (VynGetZkHandle() != nullptr) {
    static_cast<void>(mAdapter->ClusterZKClose());
  }
  if (!Failed(mAdapter->ClusterZKAdapterInit(mOptions.sessionTimeout))) {
    PrepareSession();
  }
}

void MetadataMember::PrepareSession() {
  if (Failed(mAdapter->ClusterZKMakeDir())) {
    return;
  }
  mPrepared = true;
}

void MetadataMember::BuildStatusTree() {
  std::vector<std::string> present;
  const auto complete = [&] {
    if (zookeeper::Children(ClusterZKAdapter::mMetaStatusPath, present) != ZOK) {
      return false;
    }
    const std::set<std::string> names(present.begin(), present.end());
    for (const std::string& node : mRecord->mConfiguredNodes) {
      if (names.count(node) == 0) {
        return false;
      }
    }
    return true;
  };
  if (complete()) {
    return;  // do not overwrite what other nodes have written
  }
  // If the reply to an earlier creation of the mutex znode was lost, this session owns it. Waiting until it
  // disappears would then be a deadlock.
  Stat stat{};
  const bool own =
      zookeeper::Exists(ClusterZKAdapter::mMetaMutexPath, &stat) == ZOK && zookeeper::IsOwn(stat);
  if (!own && Failed(ClusterZKAdapter::ZKWaitAndCreateMetaMutex())) {
    return;
  }
  if (!complete() && Failed(ClusterZKAdapter::ZKClearAndCreateStatusDynamic(mRecord))) {
    VYN_LOG_ERROR("The status tree could not be made");
  }
  static_cast<void>(ClusterZKAdapter::ZKReleaseMetaMutex());
}

void MetadataMember::Follow() {
  if (mElectable && mRecord->mMetaNodeRole.load() != MetaNodeRole::FOLLOWER) {
    static_cast<void>(
        ClusterZKAdapter::ZKElectionOperate(mRecord));  // loses and so sets the role to FOLLOWER
  }
  if (mElectable) {
    Stat stat{};
    if (zookeeper::Exists(OwnFollowerPath(mOptions.nodeAddress), &stat) == ZNONODE) {
      static_cast<void>(ClusterZKAdapter::ZKCreateMetaElectionFollower(mRecord));
    }
  }
}

void MetadataMember::KeepOwnStatus() {
  if (!mElectable) {
    return;
  }
  std::string text;
  const std::string path = ClusterZKAdapter::mMetaStatusPath + "/" + mOptions.nodeAddress;
  const int result = zookeeper::Get(path, text);
  if (result == ZNONODE) {
    BuildStatusTree();
  } else if (result == ZOK && text != std::to_string(common::META_NODE_STATUS_ALIVE)) {
    static_cast<void>(ClusterZKAdapter::ZKSetStatus(mOptions.nodeAddress, common::META_NODE_STATUS_ALIVE));
  }
}

void MetadataMember::RegisterWatches() {
  if (!mWatching) {
    static_cast<void>(ClusterZKAdapter::ZKGetAndUpdateMetaLeaderInfo(mRecord));
    mWatching = !Failed(ClusterZKAdapter::ZKRegisterWatcher(false));
  }
  if (mWatching && !mCaughtUp) {
    mCaughtUp = CatchUp();
  }
}

bool MetadataMember::CatchUp() {
  if (Failed(ClusterZKAdapter::ZKUpdateMemoryInformation(mOptions.nodeAddress, common::META_NODE_STATUS_NONE,
                                                         true))) {
    return false;
  }
  String_vector followers{};
  return !mLeading || (DoDlZooGetChildren(VynGetZkHandle(), ClusterZKAdapter::mMetaFollowerPath.c_str(), 0,
                                          &followers) == ZOK &&
                       !Failed(ClusterZKAdapter::ZKCheckAndMarkFollowerBroken(mRecord, followers)));
}

void MetadataMember::BeginLeading() {
  if (mService != nullptr && mService->LeadershipLost()) {
    EndLeading();
  }
  if (mService != nullptr) {
    mService->ServeUntil(mLastAnswer + Lease());
    return;
  }
  std::string before;
  {
    sync::WriterLock lock(mRecord->mLeaderLock);
    before = std::exchange(mRecord->mLeaderAddress, mOptions.nodeAddress);
  }
  if (mRecord->mMetaNodeRole.exchange(MetaNodeRole::LEADER) != MetaNodeRole::LEADER) {
    // The reply to the creation of the leader znode was lost. ZKElectionOperate took this for a defeat and
    // skipped the steps that follow a win.
    if (!before.empty() && before != mOptions.nodeAddress) {
      static_cast<void>(ClusterZKAdapter::ZKSetStatus(before, common::META_NODE_STATUS_BROKEN));
    }
    static_cast<void>(
        ClusterZKAdapter::ZKTryDeleteMetaElectionFollower(OwnFollowerPath(mOptions.nodeAddress)));
  }
  auto service = std::make_unique<MetadataService>(mOptions.service, mView);
  if (const std::uint32_t status = service->Start(Lease()); Failed(status)) {
    VYN_LOG_ERROR(
        "This node won the election but cannot serve, it gives up the leadership: " << StatusText(status));
    mNextClaim = common::SteadyNow() + (status == kStatusNewerRecord ? kOlderBuildPause : kClaimPause);
    GiveUpClaim();
    return;
  }
  mService = std::move(service);
  mLeading.store(true, std::memory_order_release);
}

std::chrono::milliseconds MetadataMember::Lease() const {
  return std::chrono::milliseconds(std::min(mOptions.sessionTimeout, DoDlZooRecvTimeout(VynGetZkHandle()))) /
         2;
}

void MetadataMember::GiveUpClaim() {
  Stat stat{};
  if (zookeeper::Exists(ClusterZKAdapter::mMetaLeaderPath, &stat) == ZOK && zookeeper::IsOwn(stat)) {
    static_cast<void>(ClusterZKAdapter::ZKTryDeleteMetaElectionLeader());
  }
}

void MetadataMember::EndLeading() {
  mLeading.store(false, std::memory_order_release);
  mService.reset();
}

}  // namespace vyn::services
