#pragma once

// What a process of the SDK meets: a home with its configuration, a libbmclient.so that follows a script, a
// node server and a metadata service on loopback that answer what the test tells them, and for drivers a real
// ZooKeeper with a leader. Objects of the SDK are the process's, so each test case has a process of its own.

#include "cluster/cluster_zkadapter.h"
#include "support/scripted_bmclient.h"
#include "support/scripted_service.h"
#include "support/temp_dir.h"
#include "support/test.h"
#include "support/zookeeper_server.h"
#include "tessel/message/broadcast/broadcast_messages.h"
#include "tessel/message/node_messages.h"
#include "tessel/message/operation_codes.h"
#include "vyn/broadcast.h"

namespace vyn::test {

class SdkWorld {
 public:
  SdkWorld() {
    mHome = ScriptedBmClient::Path();
    mHome.resize(mHome.find("/tessel/"));
    std::filesystem::create_directories(mHome + "/tessel/24.0.0/" VYN_BINARY_TYPE "/lib/common");
    tessel::MetaLeaderInformation leader("127.0.0.1");
    server.Answer(ShuffleServer::META_LEADER_INFO, {0, BytesOf(leader)});
    AnswerMfNode(true, 5);
    tessel::NodeIdResponse registered;
    registered.nodeId = 9;
    registered.isMfNode = true;
    server.Answer(ShuffleServer::APP_REGISTER, {0, BytesOf(registered)});
  }

  void AnswerMfNode(bool isMfNode, std::uint32_t nodeId) {
    tessel::NodeIdResponse answer;
    answer.isMfNode = isMfNode;
    answer.nodeId = nodeId;
    meta.Answer(ShuffleMeta::IS_MF_NODE, {0, BytesOf(answer)});
  }

  /// The blocks that the node server creates and knows.
  static std::string Blocks(const std::string& application, std::uint32_t id, std::uint32_t nodeId,
                            char letter = 'a', const std::vector<std::uint64_t>& sizes = {100, 50}) {
    tessel::BroadcastBlockInfo info;
    info.appId = application;
    info.broadcastId = id;
    info.nodeId = nodeId;
    info.bmIds = {std::string(60, letter), std::string(60, static_cast<char>(letter + 1))};
    info.sizes = sizes;
    return BytesOf(info);
  }

  /// \param zookeeper empty when the test needs none. \param more further lines.
  void WriteConf(const std::string& zookeeper = "", const std::string& more = "") const {
    std::filesystem::create_directories(mHome + "/conf");
    std::ofstream(mHome + "/conf/vyn.conf")
        << "vyn.log.level=ERROR\nvyn.tessel.rpc.enableTLS=false\nvyn.tessel.rpc.enableAuthentication=false\n"
        << "vyn.zookeeper.security.enable=false\nvyn.zookeeper.connect.timeout=2\n"
        << "vyn.tessel.rpc.transport.protocol=tcp\nvyn.tessel.rpc.openssl.path=libssl.so.3\n"
        << "vyn.tessel.rpc.crypto.path=libcrypto.so.3\n"
        << "vyn.tessel.rpc.shuffle_server.port=" << server.Port() << "\n"
        << "vyn.tessel.rpc.shuffle_meta.port=" << meta.Port() << "\n"
        << "vyn.tessel.rpc.shuffle_meta.timeout=5000\n"
        << "vyn.zookeeper.server.url=" << (zookeeper.empty() ? "127.0.0.1:1" : zookeeper) << "\n"
        << more;
  }

  std::uint32_t Initialize(unsigned int flag) const {
    return BroadcastInitialize(mHome.c_str(), "24.0.0", VYN_BINARY_TYPE, flag);
  }

  const std::string& Home() const { return mHome; }

  ScriptedBmClient bm;
  ScriptedService server;
  ScriptedService meta;

 private:
  std::string mHome;
};

/// ZooKeeper with the leader of a metadata service.
struct DriverGround {
  DriverGround() : url(zookeeper.NewRoot()), raw(url) {
    raw.Create("/meta/election/leader_info", "127.0.0.1");
  }

  ZookeeperServer zookeeper;
  std::string url;
  RawZookeeper raw;
};

}  // namespace vyn::test
