#include "tessel/sdk/start_up/sdk_frame.h"

#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "tessel/rpc/shuffle_server_rpc_engine.h"

namespace vyn::tessel {

bool RefreshMetaClient() {
  g_ShuffleMetaRPCEngine = ShuffleMetaRPCEngine::GetInstance();
  return g_ShuffleMetaRPCEngine != nullptr;
}

bool RefreshServerClient() {
  g_shuffleServerRPCEngine = ShuffleServerRPCEngine::GetInstance(true);
  return g_shuffleServerRPCEngine != nullptr;
}

}  // namespace vyn::tessel
