#pragma once

// The base of every typed client of a service: owns the pool of connections and makes calls through it.
//
// Any number of threads may call SendCall at once, also while the derived client replaces its pool: a call
// begins with the pool in use and hands its engine back to the one in use when it ends.

#include "common/message/base_message.h"
#include "common/rpc/rpc_engine_pool.h"
#include "common/util/ref.h"

#include <cstdint>
#include <mutex>
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

  /// One synchronous call on a connection of its own. \param response may hold null (BaseMessage::gNullPtr).
  /// \param timeout milliseconds; 0 stands for RpcEngine::mTimeout. Returns: 0, the server's status, or what
  /// failed.
  unsigned int SendCall(unsigned short opcode, const Ref<BaseMessage>& request,
                        const Ref<BaseMessage>& response, long timeout);

  /// Returns: the pool in use; null until the derived client has made one.
  Ref<RPCEnginePool> EnginePool() const {
    std::lock_guard lock(mPoolMutex);
    return mEnginePool;
  }
  /// Puts `pool` in place of the one in use, which goes with its last call.
  void SetEnginePool(Ref<RPCEnginePool> pool) {
    std::lock_guard lock(mPoolMutex);
    std::swap(mEnginePool, pool);
  }

  /// Guarded by mPoolMutex, a lock for a moment only: what is replaced is destroyed outside it.
  Ref<RPCEnginePool> mEnginePool;
  mutable std::mutex mPoolMutex;
  Ref<RPCEngineParam> mParam;
  /// The value that the pool gets as its size.
  std::uint16_t mConnectionCount = 1;
};

}  // namespace vyn::common
