// The instance, the leader and the pool of the tuning client.

#include "tuning/rpc/tuning_rpc_engine.h"

#include "common/log/logging.h"
#include "platform/sync/mutex.h"
#include "tuning/rpc/tuning_rpc_engine_pool.h"

#include <new>

namespace vyn::tuning {

Ref<TuningRpcEngine>& TuningRpcEngine::mTuningRpcEngine = *new Ref<TuningRpcEngine>;

namespace {

/// Held while mTuningRpcEngine is read or written here. The member is promised and public, so no class
/// can name this mutex as its guard, and clang does not check it.
sync::Mutex gInstanceMutex;

constexpr cluster::LeaderService kTuningService{
    .name = "meta service",
    .portKey = "vyn.tuning.rpc.server.port",
    .defaultPort = 3893,
    .newPool = &cluster::NewLeaderPool<TuningRPCEnginePool>,
    .connectFailed =
        [](std::uint32_t status) {
          VYN_LOG_ERROR("Failed to initialize rpc client with error code "
                        << (status >> 1));  // without bit 0
          return status;
        },
};

}  // namespace

TuningRpcEngine::TuningRpcEngine(long timeout, bool isSdk, unsigned short groupIndex)
    : LeaderRPCEngine(kTuningService, timeout, isSdk, groupIndex) {}

Ref<TuningRpcEngine> TuningRpcEngine::CreateInstance(long timeout, bool isSdk, unsigned short groupIndex) {
  const Ref<TuningRpcEngine> made(new (std::nothrow) TuningRpcEngine(timeout, isSdk, groupIndex));
  return cluster::PublishClient(made, mTuningRpcEngine, gInstanceMutex, "TuningRpcEngine");
}

Ref<TuningRpcEngine> TuningRpcEngine::GetInstance() {
  sync::MutexLock lock(gInstanceMutex);
  return mTuningRpcEngine;
}

unsigned int TuningRpcEngine::Initialize() {
  const unsigned int status = LoadDependencies();
  return Failed(status) ? status : ConnectToLeader();
}

unsigned int TuningRpcEngine::SendAndWaitReply(short opcode, const Ref<common::BaseMessage>& request,
                                               const Ref<common::BaseMessage>& response) {
  return SendWithRetry(opcode, request, response, nullptr);
}

}  // namespace vyn::tuning
