#pragma once

// The connections to one peer. A pool gives a thread an engine for one call. mIp and mPort are the peer's
// present address. When a client changes them, the pool closes an engine with the old address as soon as it
// would hand it out or take it back.
//
// Any thread may take and return engines. mMutex is the innermost lock and is never held during a connect or
// a call. Members without a note do not change after set-up.

#include "common/config/configuration.h"
#include "common/rpc/rpc_engine.h"
#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace vyn::common {

class RPCEnginePool : public Referable {
 public:
  /// \param timeout milliseconds. \param clientIdentity true to use a client's credentials, false for a
  /// service's. \param poolSize how often Initialize takes and returns an engine. \param securityConf passed
  /// to every RpcEngine::Initialize.
  RPCEnginePool(std::string ip, std::uint16_t port, std::int64_t timeout, bool clientIdentity,
                std::uint16_t poolSize, std::uint16_t peerGroupIndex,
                std::map<std::string, const std::string> securityConf, bool tlsEnable, bool authEnable);
  ~RPCEnginePool() override = default;

  /// Makes and connects a new engine. Called without the mutex held.
  virtual unsigned int NewRPCEngine(Ref<RpcEngine>& engine) = 0;
  /// Reads the security settings from the configuration, calls SetTimeout and connects. Each pool of this
  /// library overrides it with FillPool alone.
  virtual unsigned int Initialize();
  /// Called by RPCEnginePool::Initialize, and so by no pool of this library.
  virtual unsigned int SetTimeout() = 0;

  /// Sets `engine` to one that only the caller uses: the idle one that was returned last, or a new one.
  /// Returns: 0, or the status of the failed connect. After a failure the caller returns nothing to the pool.
  unsigned int GetRpcEngine(Ref<RpcEngine>& engine);
  /// Takes an engine back. Closes one whose peer is no longer the pool's.
  void ReturnRpcEngine(const Ref<RpcEngine>& engine);
  /// Ends the calls under way to peers other than the present one with 2020019. A client calls this after it
  /// has changed the address: an old peer that stands still would keep each call for its whole time-out.
  void AbandonOldPeers();
  /// Returns: for how long the oldest call or connect under way has lasted; zero without one.
  std::chrono::nanoseconds LongestUse();
  /// Fills the security settings from mConfig. Requires: mConfig is set. An existing entry keeps its value.
  void GetSecurityConf();

  std::string mIp VYN_GUARDED_BY(mMutex);
  std::uint16_t mPort VYN_GUARDED_BY(mMutex);
  sync::Mutex mMutex;
  /// The idle engines, used as a stack.
  std::vector<Ref<RpcEngine>> mEngines VYN_GUARDED_BY(mMutex);
  std::int64_t mTimeout;  ///< milliseconds
  bool mClientIdentity;
  std::uint16_t mPoolSize;
  std::uint16_t mPeerGroupIndex;
  Ref<Configuration> mConfig;
  std::map<std::string, const std::string> mSecurityConf;
  bool mTlsEnable;
  bool mAuthEnable;

 protected:
  /// The body of every NewRPCEngine: allocates an engine with `options` and connects it to the pool's present
  /// peer. \param timeout milliseconds, passed to RpcEngine::Initialize.
  unsigned int ConnectEngine(Ref<RpcEngine>& engine, const std::map<std::string, std::string>& options,
                             std::int64_t timeout);
  /// The body of every Initialize: takes an engine and returns it, mPoolSize times. Stops at the first
  /// failure.
  unsigned int FillPool();

 private:
  /// An engine that connects or is handed out. Its own mIp and mPort belong to the thread that uses it.
  struct InUse {
    Ref<RpcEngine> mEngine;
    std::string mIp;
    std::uint16_t mPort;
    std::chrono::steady_clock::time_point mBegan = std::chrono::steady_clock::now();
  };
  void Forget(const Ref<RpcEngine>& engine) VYN_REQUIRES(mMutex);

  std::vector<InUse> mInUse VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::common
