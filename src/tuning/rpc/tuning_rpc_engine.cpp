// The connection side: the instance, the leader, the pool.

#include "tuning/rpc/tuning_rpc_engine.h"

#include "common/util/clock.h"
#include "common/util/logging.h"
#include "tuning/rpc/tuning_rpc_engine_pool.h"

#include <chrono>
#include <mutex>
#include <new>

namespace vyn::tuning {

Ref<TuningRpcEngine>& TuningRpcEngine::mTuningRpcEngine = *new Ref<TuningRpcEngine>;

namespace {

std::mutex gInstanceMutex;  ///< guards mTuningRpcEngine

}  // namespace

Ref<TuningRpcEngine> TuningRpcEngine::CreateInstance(long timeout, bool isSdk, unsigned short groupIndex) {
  Ref<TuningRpcEngine> made(new (std::nothrow) TuningRpcEngine(timeout, isSdk, groupIndex));
  if (made == nullptr) {
    VYN_LOG_ERROR("Failed to new instance for \"TuningRpcEngine\"");
    return nullptr;
  }
  std::lock_guard lock(gInstanceMutex);
  mTuningRpcEngine = made;
  return made;
}

Ref<TuningRpcEngine> TuningRpcEngine::GetInstance() {
  std::lock_guard lock(gInstanceMutex);
  return mTuningRpcEngine;
}

unsigned int TuningRpcEngine::Initialize() {
  if (const unsigned int status = TakeSources(); Failed(status)) {
    return status;
  }
  const std::string leader = AdoptLeader();
  const unsigned int status = InitializeEnginePool(leader);
  if (Failed(status)) {
    VYN_LOG_ERROR("Failed to reconnect to <" << leader << ">.");
  }
  return status;
}

unsigned int TuningRpcEngine::InitializeEnginePool(const std::string& ip) {
  const auto begin = common::SteadyNow();
  Ref<common::RPCEnginePool> pool;
  if (const unsigned int status =
          ReplacePool(ip, "vyn.tuning.rpc.server.port", 3893, &NewPool<TuningRPCEnginePool>, "", pool);
      Failed(status)) {
    return status;
  }
  if (const unsigned int status = pool->Initialize(); Failed(status)) {
    VYN_LOG_ERROR("Failed to initialize rpc client with error code " << (status >> 1));
    return status;
  }
  VYN_LOG_INFO("Connected to meta service at <"
               << ip << "> successfully with in "
               << std::chrono::nanoseconds(common::SteadyNow() - begin).count() << "ns.");
  return VYN_OK;
}

unsigned int TuningRpcEngine::SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                               const Ref<common::BaseMessage>& response) {
  return SendWithRetry(opcode, request, response, nullptr);
}

}  // namespace vyn::tuning
