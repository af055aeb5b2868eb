// A member of the election in a process of its own: zookeeper_member <url> <node> <session time-out>. It
// connects, and then does what its standard input says, a line each, with a line as answer. It ends at the
// end of its input.

#include "cluster/cluster_zkadapter.h"
#include "support/cluster_test.h"

#include <iostream>
#include <string>

using vyn::cluster::ClusterZKAdapter;
using vyn::common::MetaNodeInfo;

namespace {

std::string Leader(MetaNodeInfo& meta) {
  std::shared_lock lock(meta.mLeaderLock);
  return meta.mLeaderAddress;
}

}  // namespace

int main(int count, char** arguments) {
  if (count != 4) {
    return 2;
  }
  vyn::test::UseZookeeper(arguments[1]);
  const auto adapter = ClusterZKAdapter::GetInstance(vyn::cluster::NODE_ROLE_SERVER);
  auto meta = MetaNodeInfo::GetInstance();
  meta->mNodeAddress = arguments[2];
  std::cout << adapter->ClusterZKAdapterInit(std::stoi(arguments[3])) << std::endl;
  for (std::string line; std::getline(std::cin, line);) {
    if (line == "round") {
      std::cout << adapter->ZKElectionOperate(meta) << " " << static_cast<int>(meta->mMetaNodeRole.load())
                << " " << Leader(*meta) << std::endl;
    } else if (line == "follow") {
      std::cout << adapter->ZKCreateMetaElectionFollower(meta) << " " << adapter->ZKRegisterWatcher(false)
                << std::endl;
    } else if (line == "leader") {
      std::cout << Leader(*meta) << std::endl;
    } else {
      return 3;
    }
  }
  return 0;
}
