#pragma once

// The objects of a variable that this process writes from outside the fabric, and the connection that holds
// them: their node frees them when the connection ends before the variable is published.
//
// Threads: one thread at a time. A forked child drops the connection of its parent.

#include "platform/fabric/protocol/remote_node.h"

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vyn::fabric {

class UnpublishedBatch {
 public:
  explicit UnpublishedBatch(std::shared_ptr<RemoteNode> node) : mNode(std::move(node)) {}

  /// Allocates all objects, or none. \param ids receives their ids.
  int Allocate(const Access& access, std::uint32_t variable, std::span<const std::uint64_t> sizes,
               std::vector<std::string>& ids);
  /// Makes sure that the node holds the objects, over a new connection if the old one has ended.
  /// Returns: -ENOENT when the node has freed them.
  int Keep(const Access& access);
  /// In a forked child.
  void Drop() { mHolder.reset(); }

 private:
  /// One kAllocateBatch. Requires: 1 to kMaxIdsPerFrame sizes.
  int AllocateSome(const Access& access, std::uint32_t variable, std::span<const std::uint64_t> sizes,
                   std::vector<std::string>& ids);
  int Hold(const ObjectName& object);

  const std::shared_ptr<RemoteNode> mNode;
  std::unique_ptr<Channel> mHolder;  ///< the connection; null when it has ended
  std::vector<std::string> mHeld;    ///< the first object of each kAllocateBatch
};

}  // namespace vyn::fabric
