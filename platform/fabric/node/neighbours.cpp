#include "platform/fabric/node/neighbours.h"

namespace vyn::fabric {

namespace {

/// Shorter than kAnswerTimeout, the time that the client waits whose request is forwarded.
constexpr std::chrono::milliseconds kForwardTimeout{6000};

}  // namespace

std::shared_ptr<RemoteNode> Neighbours::Find(std::uint16_t nodeId) {
  NodeAddress address;
  if (mDirectory == nullptr || !mDirectory(nodeId, address)) {
    return nullptr;
  }
  sync::MutexLock lock(mMutex);
  Known& known = mKnown[nodeId];
  if (known.node == nullptr || known.address.host != address.host || known.address.port != address.port) {
    known.address = address;
    known.node = std::make_shared<RemoteNode>(
        [address, security = mSecurity](net::Deadline deadline, int& result) {
          return ConnectLink(address.host, address.port, security, deadline, result);
        },
        PeerRole::kNode, nodeId, Timeouts{kConnectTimeout, kForwardTimeout});
  }
  return known.node;
}

}  // namespace vyn::fabric
