// A process that ends with senders running: heart_beat_sender CONFIGURATION. Starts three senders to the
// metadata service of the configuration on 127.0.0.1 and leaves main when its input ends.

#include "cluster/meta_node_info.h"
#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "support/test.h"
#include "tessel/rpc/shuffle_meta_rpc_engine.h"
#include "vyn/status.h"

int main(int, char** arguments) {
  using vyn::common::BaseApiUtil;
  if (vyn::common::Configuration::GetInstance(arguments[1]) == nullptr) {
    return 2;
  }
  vyn::common::MetaNodeInfo::GetInstance()->mLeaderAddress = "127.0.0.1";
  const auto client = vyn::tessel::ShuffleMetaRPCEngine::CreateInstance(600000, true, nullptr);
  if (vyn::Failed(client->Initialize())) {
    return 3;
  }
  for (const char* name : {"app0", "app1", "app2"}) {
    if (vyn::Failed(BaseApiUtil::StartHeartBeat(name, 0, "driver", ""))) {
      return 4;
    }
  }
  char byte;
  while (read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return 0;
}
