#pragma once

// What the clients of the services at the elected leader share: following the leader, the retry policy, and
// the making of a pool.
//
// The leader's address lives in MetaNodeInfo, outside the client. Before each attempt of a call the client
// compares it with the address that its pool points at and moves the pool when they differ; connections to
// the old leader end when they are next handed out or back. The port stays the configured one.
//
// Any number of threads may call. Lock order: mRefreshMutex, then MetaNodeInfo::mLeaderLock, which is let go
// before the pool's mutex is taken. No lock is held across a connect, a call or a sleep.

#include "cluster/leader_rpc_engine_pool.h"
#include "cluster/meta_node_info.h"
#include "common/rpc/rpc_engine_base.h"
#include "common/util/configuration.h"

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <new>
#include <string>
#include <utility>

namespace vyn::cluster {

class LeaderRPCEngine : public common::RPCEngineBase {
 public:
  /// \param timeout milliseconds for every call and for connecting; 0 stands for the process's default.
  /// \param isSdk whether this process is an engine's and uses the client credentials.
  LeaderRPCEngine(long timeout, bool isSdk, std::uint16_t groupIndex)
      : mTimeout(timeout), mGroupIndex(groupIndex), mIsSdk(isSdk) {}
  ~LeaderRPCEngine() override = default;

  /// Points the pool at the leader that MetaNodeInfo names. Makes no connection. The flag has no effect.
  /// Returns: 0, or 2000057 when the leader has moved and there is no pool.
  std::uint32_t RefreshMasterNodeInfo(bool);

 protected:
  /// Takes the configuration and the leader record. Returns: 0; 2000057 without a configuration; 1 without a
  /// leader record.
  std::uint32_t TakeSources();

  /// Makes the present leader the one that the next pool is made for. Returns: its address.
  std::string AdoptLeader();

  /// Makes a pool of the given class; null without memory.
  template <typename Pool>
  static common::RPCEnginePool* NewPool(const common::RPCEngineParam& param, std::uint16_t poolSize,
                                        std::uint16_t groupIndex, SecurityConf securityConf) {
    return new (std::nothrow) Pool(param, poolSize, groupIndex, std::move(securityConf));
  }
  using PoolMaker = decltype(&NewPool<LeaderRPCEnginePool>);

  /// Makes a pool for `ip` and puts it in place of the one in use; does not connect it.
  /// \param portKey configuration key of the service's port. \param announcementEnd ends the line that tells
  /// of the attempt. \param pool takes the pool. Returns: 0; 1 when authentication is on and `ip` is not in
  /// the mapping of host names; 2000057 without memory or configuration.
  std::uint32_t ReplacePool(const std::string& ip, const char* portKey, int defaultPort, PoolMaker newPool,
                            const std::string& announcementEnd, common::Ref<common::RPCEnginePool>& pool);

  /// One operation: at most 4 attempts, on 2020019 and 2020021, with sleeps of 0, 5, 10 and 15 seconds after
  /// the failed ones. Before each attempt the leader is compared.
  /// \param response may hold null. \param afterFailure called after each failed attempt and its sleep, with
  /// the attempt's status; may be empty. Returns: the status of the last attempt.
  std::uint32_t SendWithRetry(short opcode, const common::Ref<common::BaseMessage>& request,
                              const common::Ref<common::BaseMessage>& response,
                              const std::function<void(std::uint32_t)>& afterFailure);

 private:
  /// Reads the flags, the port and the security settings for the leader `ip`. Requires: mRefreshMutex.
  std::uint32_t ReadSettings(const std::string& ip, const char* portKey, int defaultPort,
                             SecurityConf& securityConf);

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
