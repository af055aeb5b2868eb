#pragma once

// The other nodes of the fabric, as the directory knows them. Threads: any.

#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/protocol/link.h"
#include "platform/fabric/protocol/remote_node.h"

#include <map>
#include <memory>
#include <mutex>

namespace vyn::bm {

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
  std::mutex mMutex;  // guards mKnown; not held while the directory is asked
  std::map<std::uint16_t, Known> mKnown;
};

}  // namespace vyn::bm
