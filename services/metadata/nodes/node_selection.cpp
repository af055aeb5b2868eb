#include "services/metadata/nodes/node_selection.h"

#include <algorithm>
#include <set>

namespace vyn::services {

namespace {

bool IsLoopback(const std::string& address) {
  return address.rfind("127.", 0) == 0 || address == "::1" || address == "localhost";
}

}  // namespace

std::vector<cluster::NodeInfo> SelectNodes(std::vector<cluster::NodeInfo> live,
                                           const std::vector<std::string>& candidates, bool single) {
  if (!candidates.empty()) {
    const bool fabricOnLoopback =
        !live.empty() &&
        std::all_of(live.begin(), live.end(), [](const auto& node) { return IsLoopback(node.ip); });
    std::set<std::string> wanted;
    for (const std::string& candidate : candidates) {
      if (fabricOnLoopback || !IsLoopback(candidate)) {
        wanted.insert(candidate);
      }
    }
    live.erase(std::remove_if(live.begin(), live.end(),
                              [&](const auto& node) {
                                return wanted.count(node.ip) == 0 && wanted.count(node.hostName) == 0;
                              }),
               live.end());
  }
  std::stable_sort(live.begin(), live.end(),
                   [](const auto& a, const auto& b) { return a.capacityB > b.capacityB; });
  if (single && live.size() > 1) {
    live.resize(1);
  }
  return live;
}

}  // namespace vyn::services
