#pragma once

// The base of every typed client of a service. It owns the pool of connections and makes the calls.
//
// Any number of threads may call SendCall, also while the derived client replaces its pool: a call takes its
// engine from the pool in use at its start and returns it to the pool in use at its end. mConnectionCount is
// set during initialisation.

#include "common/message/base_message.h"
#include "common/rpc/rpc_engine_pool.h"
#include "common/util/ref.h"
#include "platform/sync/mutex.h"

#include <cstdint>
#include <string>
#include <utility>

namespace vyn::common {

/// The values from which a client builds its pool.
class RPCEngineParam : public Referable {
 public:
  RPCEngineParam(std::int64_t timeout, std::string ip, std::uint16_t port, bool tlsEnable, bool authEnable)
      : mTimeout(timeout), mIp(std::move(ip)), mPort(port), mTlsEnable(tlsEnable), mAuthEnable(authEnable) {}
  ~RPCEngineParam() override = default;

  std::int64_t mTimeout;  ///< milliseconds
  std::string mIp;
  std::uint16_t mPort;
  bool mTlsEnable;
  bool mAuthEnable;
};

class RPCEngineBase : public Referable {
 public:
  RPCEngineBase() = default;
  ~RPCEngineBase() override = default;

  /// One synchronous call on a connection that no other call uses meanwhile. \param response may hold null
  /// (BaseMessage::gNullPtr). \param timeout milliseconds; 0 means RpcEngine::mTimeout. Returns: 0, the
  /// server's status, or the status of the failed connection or call.
  unsigned int SendCall(unsigned short opcode, const Ref<BaseMessage>& request,
                        const Ref<BaseMessage>& response, long timeout, ExpectedRefusals expected = {});

  /// Returns: the pool in use; null until the derived client has made one.
  Ref<RPCEnginePool> EnginePool() const {
    sync::MutexLock lock(mPoolMutex);
    return mEnginePool;
  }
  /// Replaces the pool in use by `pool`, which was made from `param`. The old pool is destroyed when its last
  /// call has ended.
  void SetEnginePool(Ref<RPCEnginePool> pool, Ref<RPCEngineParam> param) {
    sync::MutexLock lock(mPoolMutex);
    std::swap(mEnginePool, pool);
    std::swap(mParam, param);
  }

  Ref<RPCEnginePool> mEnginePool VYN_GUARDED_BY(mPoolMutex);
  Ref<RPCEngineParam> mParam VYN_GUARDED_BY(mPoolMutex);
  /// Not held while a pool is destroyed.
  mutable sync::Mutex mPoolMutex;
  /// The `poolSize` of the pool.
  std::uint16_t mConnectionCount = 1;
};

}  // namespace vyn::common
