#pragma once

// What the clients of the services at the elected leader share: the first connection, following the leader
// and the retry policy. A client describes its service in a LeaderService and adds the operations.
//
// The leader's address lives in MetaNodeInfo, outside the client. Before each attempt of a call the client
// compares it with the address that its pool points at and moves the pool when they differ; connections to
// the old leader end when they are next handed out or back. The port stays the configured one.
//
// Any number of threads may call. Lock order: mRefreshMutex, then MetaNodeInfo::mLeaderLock, which is let go
// before the pool's mutex is taken. No lock is held across a connect, a call or a sleep.

#include "cluster/leader_rpc_engine_pool.h"
#include "cluster/meta_node_info.h"
#include "common/config/configuration.h"
#include "common/rpc/rpc_engine_base.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>

namespace vyn::cluster {

/// What tells one service at the leader from another.
struct LeaderService {
  const char* name;     ///< in the line that tells of a connection
  const char* portKey;  ///< the configuration key of its port
  int defaultPort;      ///< counts only where the catalogue does not know the key
  bool tellsThread;     ///< whether the line that tells of an attempt names the thread
  /// Makes a pool of the service's class; null without memory.
  common::RPCEnginePool* (*newPool)(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                    std::uint16_t groupIndex, SecurityConf securityConf);
  /// Logs that the pool could not connect. Returns: what the client tells its caller.
  std::uint32_t (*connectFailed)(std::uint32_t status);
};

/// LeaderService::newPool for a class of pool.
template <typename Pool>
common::RPCEnginePool* NewLeaderPool(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                     std::uint16_t groupIndex, SecurityConf securityConf) {
  return new (std::nothrow) Pool(param, poolSize, groupIndex, std::move(securityConf));
}

class LeaderRPCEngine : public common::RPCEngineBase {
 public:
  /// \param service lives as long as the client. \param timeout milliseconds for every call and for
  /// connecting; 0 stands for the process's default. \param isSdk whether this process is an engine's and
  /// uses the client credentials.
  LeaderRPCEngine(const LeaderService& service, long timeout, bool isSdk, std::uint16_t groupIndex)
      : mService(service), mTimeout(timeout), mGroupIndex(groupIndex), mIsSdk(isSdk) {}
  ~LeaderRPCEngine() override = default;

  /// Makes a new pool for `ip` and connects it. Returns: 0; 1 when authentication is on and `ip` has no host
  /// name; 2000057 without memory or configuration; what the service says when no connection could be made,
  /// in which case the pool stands and later calls try again.
  std::uint32_t InitializeEnginePool(const std::string& ip);
  /// Points the pool at the leader that MetaNodeInfo names. Makes no connection. The flag has no effect.
  /// Returns: 0, or 2000057 when the leader has moved and there is no pool.
  std::uint32_t RefreshMasterNodeInfo(bool);

 protected:
  /// Takes the configuration and the leader record. Returns: 0; 2000057 without a configuration; 1 without a
  /// leader record.
  std::uint32_t TakeSources();
  /// InitializeEnginePool for the leader that MetaNodeInfo names. Requires: TakeSources has succeeded.
  std::uint32_t ConnectToLeader();
  /// One operation: at most 4 attempts, on 2020019 and 2020021, with sleeps of 0, 5, 10 and 15 seconds after
  /// the failed ones. Before each attempt the leader is compared.
  /// \param response may hold null. \param afterFailure called after each failed attempt and its sleep, with
  /// the attempt's status; may be empty. Returns: the status of the last attempt.
  std::uint32_t SendWithRetry(short opcode, const common::Ref<common::BaseMessage>& request,
                              const common::Ref<common::BaseMessage>& response,
                              const std::function<void(std::uint32_t)>& afterFailure);

 private:
  /// Reads the flags, the port and the security settings for the leader `ip`. Requires: mRefreshMutex.
  std::uint32_t ReadSettings(const std::string& ip, SecurityConf& securityConf);

  const LeaderService& mService;
  const long mTimeout;  ///< milliseconds
  const std::uint16_t mGroupIndex;
  /// Guards all that follows, and mParam.
  std::mutex mRefreshMutex;
  common::Ref<common::MetaNodeInfo> mMetaNode;
  std::string mMasterAddress;  ///< the leader that the pool was last pointed at
  common::Ref<common::Configuration> mConf;
  bool mTlsEnable = true;
  bool mAuthEnable = true;
  std::uint16_t mPort = 0;

 protected:
  const bool mIsSdk;
};

}  // namespace vyn::cluster
