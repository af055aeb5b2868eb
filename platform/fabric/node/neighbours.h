#pragma once

// The proxies of the other nodes, at the addresses that the directory gives. Threads: any.

#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/protocol/remote_node.h"
#include "platform/fabric/transport/link.h"
#include "platform/sync/mutex.h"

#include <map>
#include <memory>

namespace vyn::fabric {

class Neighbours {
 public:
  Neighbours(NodeDirectory directory, LinkSecurity security)
      : mDirectory(std::move(directory)), mSecurity(std::move(security)) {}

  /// Returns: the node, whether it can be reached or not; null when the directory does not know it.
  std::shared_ptr<RemoteNode> Find(std::uint16_t nodeId);

 private:
  struct Known {
    NodeAddress address;
    std::shared_ptr<RemoteNode> node;
  };

  const NodeDirectory mDirectory;
  const LinkSecurity mSecurity;
  sync::Mutex mMutex;  // not held while the directory is called
  std::map<std::uint16_t, Known> mKnown VYN_GUARDED_BY(mMutex);
};

}  // namespace vyn::fabric
