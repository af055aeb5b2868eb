#pragma once

// What a process of the SDK meets: a home with its configuration, a libbmclient.so that follows a script, a
// node server and a metadata service on loopback that answer what the test tells them, and for drivers a real
// ZooKeeper with a leader. Objects of the SDK are the process's, so each test case has a process of its own.

#include "cluster/cluster_zkadapter.h"
#include "support/captured_log.h"
#include "support/client/scripted_bmclient.h"
#include "support/client/scripted_service.h"
#include "support/zookeeper/zookeeper_server.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"
#include "tessel/sdk/broadcast/base_api_broadcast.h"
#include "tessel/sdk/start_up/sdk_state.h"
#include "vyn/broadcast.h"

namespace vyn::test {

class SdkWorld {
 public:
  SdkWorld() {
    std::filesystem::create_directories(mHome + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common");
    AnswerLeader();
    AnswerMfNode(true, 5);
    tessel::NodeIdResponse registered;
    registered.nodeId = 9;
    server.Answer(ShuffleServer::APP_REGISTER, {0, BytesOf(registered)});
  }

  void AnswerLeader() {
    tessel::MetaLeaderInformation leader("127.0.0.1");
    server.Answer(ShuffleServer::META_LEADER_INFO, {0, BytesOf(leader)});
  }
  void AnswerMfNode(bool isMfNode, std::uint32_t nodeId) {
    tessel::NodeIdResponse answer;
    answer.isMfNode = isMfNode;
    answer.nodeId = nodeId;
    meta.Answer(ShuffleMeta::IS_MF_NODE, {0, BytesOf(answer)});
  }

  /// The blocks that the node server creates and knows.
  static std::string Blocks(const std::string& application = "app", std::uint32_t id = 7,
                            std::uint32_t node = 9, char letter = 'a',
                            const std::vector<std::uint64_t>& sizes = {100, 50}) {
    tessel::BroadcastBlockInfo info;
    info.appId = application;
    info.broadcastId = id;
    info.nodeId = node;
    info.bmIds = {std::string(60, letter), std::string(60, static_cast<char>(letter + 1))};
    info.sizes = sizes;
    return BytesOf(info);
  }

  /// \param zookeeper its address. \param more further lines.
  void WriteConf(const std::string& zookeeper = "127.0.0.1:1", const std::string& more = "") const {
    Installation::Get().Write(
        "conf/vyn.conf",
        "vyn.log.level=ERROR\nvyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"
        "vyn.zookeeper.security.enable=false\nvyn.zookeeper.connect.timeout=2\n"
        "vyn.tessel.rpc.transport.protocol=tcp\nvyn.tessel.rpc.openssl.path=libssl.so.3\n"
        "vyn.tessel.rpc.crypto.path=libcrypto.so.3\nvyn.tessel.rpc.shuffle_meta.timeout=5000\n"
        "vyn.tessel.rpc.shuffle_server.port=" +
            std::to_string(server.Port()) + "\nvyn.tessel.rpc.shuffle_meta.port=" +
            std::to_string(meta.Port()) + "\nvyn.zookeeper.server.url=" + zookeeper + "\n" + more);
  }

  std::uint32_t Initialize(unsigned int flag) const {
    return BroadcastInitialize(mHome.c_str(), "24.0.0", VYN_BINARY_TYPE, flag);
  }

  const std::string& Home() const { return mHome; }

  ScriptedBmClient bm;
  ScriptedService server;
  ScriptedService meta;

 private:
  const std::string mHome = Installation::Get().Path();
};

/// A driver that is ready, with a ZooKeeper that names the leader.
struct DriverWorld : SdkWorld {
  /// \param more lines of its configuration.
  explicit DriverWorld(bool onNode = true, const std::string& more = "") {
    RawZookeeper(url).Create("/meta/election/leader_info", "127.0.0.1");
    AnswerMfNode(onNode, 5);
    WriteConf(url, more);
    EXPECT_EQ(Initialize(0), 0U);
  }

  ZookeeperServer zookeeper;
  const std::string url = zookeeper.NewRoot();
};

}  // namespace vyn::test
