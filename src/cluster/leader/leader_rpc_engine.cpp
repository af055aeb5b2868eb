#include "cluster/leader/leader_rpc_engine.h"

#include "common/api/base_api_util.h"
#include "common/log/logging.h"
#include "common/util/clock.h"
#include "common/util/text.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <sstream>
#include <thread>
#include <utility>

namespace vyn::cluster {

namespace {

constexpr unsigned int kRetryLimit = 3;
/// The pauses after the first, second, third and fourth failed attempt at one leader. No attempt follows the
/// last pause, only `afterFailure`, which asks for the leader.
constexpr std::array<std::chrono::milliseconds, kRetryLimit + 1> kPauses{
    std::chrono::seconds(0), std::chrono::seconds(5), std::chrono::seconds(10), std::chrono::seconds(15)};
/// How often one call may lose its connection because the leader has changed meanwhile. That is no failure of
/// a leader: the calls to an old leader are ended as soon as a new one is known.
constexpr unsigned int kMoveLimit = 16;
/// After this time without an answer the leader may have been replaced: the client asks, this often.
constexpr std::chrono::seconds kSilence{10};
constexpr std::chrono::seconds kAskPeriod{2};
/// How often a pause checks whether there is a new leader.
constexpr std::chrono::milliseconds kSlice{500};

bool IsRetriable(std::uint32_t status) {
  return status == VYN_ERR_RPC_TRANSPORT_A || status == VYN_ERR_RPC_TRANSPORT_B;
}

}  // namespace

std::uint32_t LeaderRPCEngine::LoadDependencies() {
  sync::MutexLock lock(mRefreshMutex);
  mConf = common::Configuration::GetInstance();
  VYN_CHECK_POINTER(mConf);
  mMetaNode = common::MetaNodeInfo::GetInstance();
  if (mMetaNode == nullptr) {
    VYN_LOG_ERROR("Unexpected error for get nullptr meta node information");
    return VYN_ERR_GENERIC;
  }
  return VYN_OK;
}

std::uint32_t LeaderRPCEngine::ConnectToLeader() {
  std::string leader;
  {
    sync::MutexLock lock(mRefreshMutex);
    sync::WriterLock leaderLock(mMetaNode->mLeaderLock);
    leader = mMetaNode->mLeaderAddress;
  }
  const std::uint32_t status = InitializeEnginePool(leader);
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to reconnect to <" << leader << ">.");
  }
  return status;
}

std::uint32_t LeaderRPCEngine::InitializeEnginePool(const std::string& ip) {
  sync::MutexLock lock(mRefreshMutex);
  SecurityConf securityConf;
  if (const std::uint32_t status = ReadSettings(ip, securityConf); Failed(status)) {
    return status;
  }
  const auto begin = common::SteadyNow();
  std::ostringstream thread;
  if (mService.logsThread) {
    thread << " tid<" << std::this_thread::get_id() << ">.";
  }
  VYN_LOG_INFO("Try to initialize rpc client to server: " << ip << ":" << mPort << thread.str());
  const common::Ref<common::RPCEngineParam> param(
      new (std::nothrow) common::RPCEngineParam(mTimeout, ip, mPort, mTlsEnable, mAuthEnable));
  VYN_CHECK_POINTER_NAMED(param, "mParam");
  const common::Ref<common::RPCEnginePool> pool(
      mService.newPool(*param, mConnectionCount, mGroupIndex, std::move(securityConf)));
  VYN_CHECK_POINTER_NAMED(pool, "mEnginePool");
  SetEnginePool(pool, param);
  // Recorded only once its pool exists. Otherwise, after a failure above, RefreshMasterNodeInfo would see no
  // difference and leave the pool in use at the old leader.
  mMasterAddress = ip;
  lock.Unlock();
  if (const std::uint32_t status = pool->Initialize(); Failed(status)) {
    return mService.connectFailed(status);
  }
  VYN_LOG_INFO("Connected to " << mService.name << " at <" << ip << "> successfully with in "
                               << std::chrono::nanoseconds(common::SteadyNow() - begin).count() << "ns.");
  return VYN_OK;
}

std::uint32_t LeaderRPCEngine::ReadSettings(const std::string& ip, SecurityConf& securityConf) {
  VYN_CHECK_POINTER(mConf);
  mTlsEnable = mConf->GetBool("vyn.tessel.rpc.enableTLS", true);
  mAuthEnable = mConf->GetBool("vyn.tessel.rpc.enableAuthentication", true);
  mPort = static_cast<std::uint16_t>(mConf->GetInt(mService.portKey, mService.defaultPort));
  std::string hostname;
  if (mAuthEnable) {
    const std::string mapping = mConf->GetString("vyn.tessel.rpc.auth.meta.principle.mapping", "");
    if (Failed(common::GetMetaHostname(mapping, ip, hostname))) {
      VYN_LOG_ERROR("Not in <vyn.tessel.rpc.auth.meta.principle.mapping> or has incorrect format");
      return VYN_ERR_GENERIC;
    }
  }
  return common::BaseApiUtil::GetSecurityConf4Client(securityConf, hostname, mIsSdk);
}

std::uint32_t LeaderRPCEngine::RefreshMasterNodeInfo(bool) {
  sync::MutexLock lock(mRefreshMutex);
  if (mMetaNode == nullptr) {  // LoadDependencies has not run, so there is no pool
    VYN_LOG_ERROR("Unexpected nullptr value mEnginePool");
    return VYN_ERR_NULL_POINTER;
  }
  const auto pool = EnginePool();
  {
    sync::WriterLock leaderLock(mMetaNode->mLeaderLock);
    if (mMetaNode->mLeaderAddress == mMasterAddress) {
      return VYN_OK;
    }
    if (pool != nullptr) {  // without a pool, a later call must still see the difference
      mMasterAddress = mMetaNode->mLeaderAddress;
    }
  }
  VYN_CHECK_POINTER_NAMED(pool, "mEnginePool");
  {
    sync::MutexLock poolLock(pool->mMutex);
    pool->mIp = mMasterAddress;
    pool->mPort = mPort;
  }
  pool->AbandonOldPeers();
  VYN_LOG_INFO("Shuffle metadata LEADER ip changed to " << mMasterAddress << " port changed to " << mPort);
  return VYN_OK;
}

std::string LeaderRPCEngine::KnownLeader() {
  sync::MutexLock lock(mRefreshMutex);
  if (mMetaNode == nullptr) {
    return "";
  }
  sync::ReaderLock leaderLock(mMetaNode->mLeaderLock);
  return mMetaNode->mLeaderAddress;
}

void LeaderRPCEngine::EndCallsToOldLeader(const std::function<void()>& ask) {
  const auto pool = EnginePool();
  const auto longest = pool == nullptr ? std::chrono::nanoseconds() : pool->LongestUse();
  if (longest == std::chrono::nanoseconds::zero()) {
    return;
  }
  const auto now = std::chrono::steady_clock::now();
  if (longest >= kSilence && now - mLastAsk >= kAskPeriod) {
    mLastAsk = now;
    ask();
  }
  static_cast<void>(RefreshMasterNodeInfo(true));
}

void LeaderRPCEngine::PauseFor(std::chrono::milliseconds pause, const std::string& leader) {
  while (pause > std::chrono::milliseconds::zero() && KnownLeader() == leader) {
    const auto slice = std::min(pause, kSlice);
    common::SleepFor(slice);
    pause -= slice;
  }
}

std::uint32_t LeaderRPCEngine::SendWithRetry(short opcode, const common::Ref<common::BaseMessage>& request,
                                             const common::Ref<common::BaseMessage>& response,
                                             const std::function<void(std::uint32_t)>& afterFailure,
                                             std::chrono::milliseconds limit,
                                             common::ExpectedRefusals expected) {
  const bool limited = limit.count() != 0 && (mTimeout <= 0 || mTimeout > limit.count());
  const long timeout = limited ? limit.count() : mTimeout;
  unsigned int failures = 0;
  unsigned int failuresHere = 0;
  unsigned int moves = 0;
  std::string leader = KnownLeader();
  std::uint32_t hr = VYN_OK;
  do {
    if (const std::string before = std::exchange(leader, KnownLeader()); leader != before) {
      failuresHere = 0;
    }
    hr = RefreshMasterNodeInfo(true);
    if (Failed(hr)) {
      VYN_LOG_ERROR("Refresh Master Node Info Fail, error code:" << hr);
      return hr;
    }
    hr = SendCall(static_cast<unsigned short>(opcode), request, response, timeout, expected);
    if (!Failed(hr) || common::Expects(expected, hr)) {
      return hr;
    }
    if (hr == VYN_ERR_RPC_TRANSPORT_A && moves < kMoveLimit && KnownLeader() != leader) {
      ++moves;
      continue;
    }
    VYN_LOG_WARN("Failed to send syncRpc call of opcode: " << opcode << " hr is: " << hr << " retryTime: "
                                                           << failures << " continue retry? "
                                                           << (IsRetriable(hr) ? "true" : "false"));
    PauseFor(kPauses[failuresHere], leader);
    ++failures;
    ++failuresHere;
    if (afterFailure) {
      afterFailure(hr);
    }
  } while (IsRetriable(hr) && failures <= kRetryLimit);
  if (failures > kRetryLimit) {
    VYN_LOG_ERROR("Failed to call metadata service, connection is timeout and retry more than " << kRetryLimit
                                                                                                << " times");
  }
  return hr;
}

}  // namespace vyn::cluster
