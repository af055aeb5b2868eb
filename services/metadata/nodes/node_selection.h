#pragma once

// Selects the nodes of the fabric that a driver may use for its blocks.
//
// No shared state: any thread may call it.

#include "cluster/cluster_zkadapter.h"

#include <string>
#include <vector>

namespace vyn::services {

/// Returns: the live nodes among `candidates` (addresses or host names), or all live nodes if there are no
/// candidates, sorted by free memory, most first. `single`: only the first. A loopback candidate counts only
/// if all live nodes have loopback addresses: on other clusters it would match no particular machine.
std::vector<cluster::NodeInfo> SelectNodes(std::vector<cluster::NodeInfo> live,
                                           const std::vector<std::string>& candidates, bool single);

}  // namespace vyn::services
