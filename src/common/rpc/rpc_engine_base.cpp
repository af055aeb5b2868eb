#include "common/rpc/rpc_engine_base.h"

#include "common/log/logging.h"

namespace vyn::common {

unsigned int RPCEngineBase::SendCall(unsigned short opcode, const Ref<BaseMessage>& request,
                                     const Ref<BaseMessage>& response, long timeout,
                                     ExpectedRefusals expected) {
  const auto pool = EnginePool();
  VYN_CHECK_POINTER_NAMED(pool, "mEnginePool");
  Ref<RpcEngine> engine;
  unsigned int result = pool->GetRpcEngine(engine);
  if (Failed(result)) {
    VYN_LOG_ERROR("Failed to get available shuffle rpc engine with ret<" << result << ">.");
    return result;
  }
  result = engine->SyncRpcCall(opcode, request, response, timeout, expected);
  if (Failed(result) && !Expects(expected, result)) {
    VYN_LOG_ERROR("Failed to execute rpc sync call, opcode<" << opcode << "> ret<" << result << ">.");
  }
  EnginePool()->ReturnRpcEngine(engine);
  return result;
}

}  // namespace vyn::common
