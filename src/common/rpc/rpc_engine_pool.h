#pragma once

// Connections to one peer. A pool gives each thread an engine for the length of one call, and it is the one
// place that knows where the service currently is: when the peer moves, older connections end when they are
// next handed out or back.
//
// Any thread may take and return engines. The mutex is the innermost lock and is never held during a connect
// or a call.

#include "common/config/configuration.h"
#include "common/rpc/rpc_engine.h"
#include "common/util/ref.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::common {

class RPCEnginePool : public Referable {
 public:
  /// \param timeout milliseconds. \param clientIdentity whether the process speaks as a client or as a server
  /// member. \param poolSize the passes that Initialize makes. \param securityConf given to every
  /// RpcEngine::Initialize.
  RPCEnginePool(std::string ip, std::uint16_t port, std::int64_t timeout, bool clientIdentity,
                std::uint16_t poolSize, std::uint16_t peerGroupIndex,
                std::map<std::string, const std::string> securityConf, bool tlsEnable, bool authEnable);
  ~RPCEnginePool() override = default;

  /// Makes and connects a new engine. Called without the mutex held.
  virtual unsigned int NewRPCEngine(Ref<RpcEngine>& engine) = 0;
  /// Sets the pool up from the configuration and connects.
  virtual unsigned int Initialize();
  /// A hook of the base Initialize.
  virtual unsigned int SetTimeout() = 0;

  /// Fills `engine` with an engine for exclusive use: the idle one that was returned last, or a new one.
  /// Returns: 0, or why no connection could be made; then there is nothing to hand back.
  unsigned int GetRpcEngine(Ref<RpcEngine>& engine);
  /// Takes an engine back. One whose peer is no longer the pool's is let go.
  void ReturnRpcEngine(const Ref<RpcEngine>& engine);
  /// Fills the security settings from mConfig. Requires: mConfig is set. An entry that is there keeps its
  /// value.
  void GetSecurityConf();

  std::string mIp;      ///< guarded by mMutex
  std::uint16_t mPort;  ///< guarded by mMutex
  /// Guards mIp, mPort and mEngines.
  std::mutex mMutex;
  /// The idle engines, used as a stack. Guarded by mMutex.
  std::vector<Ref<RpcEngine>> mEngines;
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
  /// peer. \param timeout milliseconds, given to RpcEngine::Initialize.
  unsigned int ConnectEngine(Ref<RpcEngine>& engine, const std::map<std::string, std::string>& options,
                             std::int64_t timeout);
  /// The loop of every Initialize: takes an engine and hands it back, mPoolSize times. Stops at the first
  /// failure.
  unsigned int FillPool();
};

}  // namespace vyn::common
