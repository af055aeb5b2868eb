#pragma once

// The base of the clients whose service runs on the elected leader, metadata and tuning: it connects, follows
// the leader and retries. A client describes its service in a LeaderService and adds the operations.
//
// MetaNodeInfo holds the leader's address. Before each attempt of a call the client compares it with the
// address of its pool and changes the pool when they differ. The pool closes a connection to the old leader
// when it next hands it out or takes it back. The port is always the configured one.
//
// Any number of threads may call. Lock order: mRefreshMutex, then MetaNodeInfo::mLeaderLock, which is
// released before the pool's mutex is taken. No lock is held across a connect, a call or a sleep.

#include "cluster/leader/leader_rpc_engine_pool.h"
#include "cluster/meta_node_info.h"
#include "common/config/configuration.h"
#include "common/log/logging.h"
#include "common/rpc/rpc_engine_base.h"
#include "platform/sync/mutex.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <new>
#include <string>
#include <utility>

namespace vyn::cluster {

/// What differs between the services on the leader.
struct LeaderService {
  const char* name;         ///< for the log line about a connection
  const char* portKey;      ///< the configuration key of its port
  int defaultPort;          ///< used only if the configuration has no such key
  bool logsThread = false;  ///< whether the log line about an attempt to connect names the thread
  /// Makes a pool of the service's class. Returns: the pool, or null without memory.
  common::RPCEnginePool* (*newPool)(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                    std::uint16_t groupIndex, SecurityConf securityConf);
  /// Logs that the pool could not connect. Returns: the status for the client's caller.
  std::uint32_t (*connectFailed)(std::uint32_t status);
};

/// LeaderService::newPool for a class of pool.
template <typename Pool>
common::RPCEnginePool* NewLeaderPool(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                     std::uint16_t groupIndex, SecurityConf securityConf) {
  return new (std::nothrow) Pool(param, poolSize, groupIndex, std::move(securityConf));
}

/// Makes `made` the process's client. \param made null when there was no memory for it, which is logged.
/// \param mutex guards `place`. \param name the class's name, for the log. Returns: `made`.
template <typename Client>
common::Ref<Client> PublishClient(const common::Ref<Client>& made, common::Ref<Client>& place,
                                  sync::Mutex& mutex, const char* name) {
  if (made == nullptr) {
    VYN_LOG_ERROR("Failed to new instance for \"" << name << "\"");
    return nullptr;
  }
  sync::MutexLock lock(mutex);
  place = made;
  return made;
}

class LeaderRPCEngine : public common::RPCEngineBase {
 public:
  /// \param service lives as long as the client. \param timeout milliseconds for every call and for
  /// connecting; 0 means RpcEngine::mTimeout. \param isSdk true in an engine process, which uses the client's
  /// credentials.
  LeaderRPCEngine(const LeaderService& service, long timeout, bool isSdk, std::uint16_t groupIndex)
      : mService(service), mTimeout(timeout), mGroupIndex(groupIndex), mIsSdk(isSdk) {}
  ~LeaderRPCEngine() override = default;

  /// Makes a new pool for `ip` and connects it. Returns: 0; 1 when authentication is on and `ip` has no host
  /// name; 2000057 without memory or configuration; the status of LeaderService::connectFailed when no
  /// connection could be made. The pool is kept then, and later calls try to connect.
  std::uint32_t InitializeEnginePool(const std::string& ip);
  /// Gives the pool the leader's address from MetaNodeInfo. Makes no connection. The flag has no effect.
  /// Returns: 0; 2000057 before LoadDependencies, or when the leader has changed and there is no pool.
  std::uint32_t RefreshMasterNodeInfo(bool);

 protected:
  /// Stores the process's configuration and MetaNodeInfo for the other operations. Returns: 0; 2000057
  /// without a configuration; 1 without a MetaNodeInfo.
  std::uint32_t LoadDependencies();
  /// InitializeEnginePool for the leader that MetaNodeInfo names. Requires: LoadDependencies has succeeded.
  std::uint32_t ConnectToLeader();
  /// One operation: at most 4 attempts, on 2020019 and 2020021, with pauses of 0, 5, 10 and 15 seconds after
  /// the failed ones. A pause ends early when MetaNodeInfo has another leader than the attempt before it, and
  /// the pauses begin anew at that leader. Calls RefreshMasterNodeInfo before each attempt.
  /// An attempt that lost its connection while the leader changed is repeated at once and does not count.
  /// \param response may hold null. \param afterFailure called after each failed attempt and its pause, with
  /// the attempt's status; may be empty. \param limit for each attempt, if the client's time-out is longer; 0
  /// is no such limit. \param expected after such a refusal nothing is repeated, and `afterFailure` is not
  /// called. Returns: the status of the last attempt.
  std::uint32_t SendWithRetry(short opcode, const common::Ref<common::BaseMessage>& request,
                              const common::Ref<common::BaseMessage>& response,
                              const std::function<void(std::uint32_t)>& afterFailure,
                              std::chrono::milliseconds limit = {}, common::ExpectedRefusals expected = {});

  /// Ends the calls under way at a leader that has been replaced, which SendWithRetry then repeats at the new
  /// one: a leader that stands still would never end them. One thread calls it, every kFollowPeriod. \param ask
  /// finds the present leader and stores it in MetaNodeInfo; called every 2 s while a call lasts longer than
  /// 10 s.
  void EndCallsToOldLeader(const std::function<void()>& ask);

  static constexpr std::chrono::milliseconds kFollowPeriod{500};

 private:
  /// Returns: the leader's address that MetaNodeInfo has; empty before LoadDependencies.
  std::string KnownLeader();
  /// Sleeps for `pause`, or until KnownLeader is not `leader` any more.
  void PauseFor(std::chrono::milliseconds pause, const std::string& leader);
  /// Reads the flags, the port and the security settings for the leader `ip`.
  std::uint32_t ReadSettings(const std::string& ip, SecurityConf& securityConf) VYN_REQUIRES(mRefreshMutex);

  const LeaderService& mService;
  const long mTimeout;  ///< milliseconds
  const std::uint16_t mGroupIndex;
  sync::Mutex mRefreshMutex;
  common::Ref<common::MetaNodeInfo> mMetaNode VYN_GUARDED_BY(mRefreshMutex);
  std::string mMasterAddress
      VYN_GUARDED_BY(mRefreshMutex);  ///< the leader's address that the pool was last given
  common::Ref<common::Configuration> mConf VYN_GUARDED_BY(mRefreshMutex);
  bool mTlsEnable VYN_GUARDED_BY(mRefreshMutex) = true;
  bool mAuthEnable VYN_GUARDED_BY(mRefreshMutex) = true;
  std::uint16_t mPort VYN_GUARDED_BY(mRefreshMutex) = 0;
  std::chrono::steady_clock::time_point mLastAsk;  ///< only for EndCallsToOldLeader

 protected:
  const bool mIsSdk;
};

}  // namespace vyn::cluster
