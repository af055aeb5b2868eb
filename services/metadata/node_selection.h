#pragma once

// Which nodes of the fabric a driver is offered for its blocks, and whether a caller's node belongs to the
// fabric.

#include "cluster/cluster_zkadapter.h"

#include <string>
#include <vector>

namespace vyn::services {

/// The live nodes among `candidates` (addresses or host names), all live nodes when there are no candidates;
/// those with most free memory first. `single`: only the first. A loopback candidate counts only when the
/// fabric itself is on loopback: otherwise every machine would be taken for a node.
std::vector<cluster::NodeInfo> SelectNodes(std::vector<cluster::NodeInfo> live,
                                           const std::vector<std::string>& candidates, bool single);

}  // namespace vyn::services
