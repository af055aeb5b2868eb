#include "services/metadata/node_selection.h"

#include <gmock/gmock.h>

namespace vyn::services {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

cluster::NodeInfo Node(std::uint32_t id, const std::string& ip, std::uint64_t free) {
  cluster::NodeInfo node;
  node.nodeId = id;
  node.ip = ip;
  node.hostName = "host-" + std::to_string(id);
  node.capacityB = free;
  return node;
}

std::vector<std::uint32_t> Select(const std::vector<cluster::NodeInfo>& live,
                                  const std::vector<std::string>& candidates, bool single = false) {
  std::vector<std::uint32_t> ids;
  for (const auto& node : SelectNodes(live, candidates, single)) {
    ids.push_back(node.nodeId);
  }
  return ids;
}

TEST(NodeSelection, MostFreeMemoryFirstAmongTheCandidates) {
  const std::vector<cluster::NodeInfo> live{Node(1, "10.0.0.1", 5), Node(2, "10.0.0.2", 9),
                                            Node(3, "10.0.0.3", 9), Node(4, "10.0.0.4", 7)};
  EXPECT_THAT(Select(live, {}), ElementsAre(2, 3, 4, 1));
  EXPECT_THAT(Select(live, {}, true), ElementsAre(2));
  EXPECT_THAT(Select(live, {"10.0.0.1", "host-4", "10.0.0.9"}), ElementsAre(4, 1));
  EXPECT_THAT(Select(live, {"10.0.0.1", "host-4"}, true), ElementsAre(4));
  EXPECT_THAT(Select(live, {"10.0.0.9"}), IsEmpty());
  EXPECT_THAT(Select({}, {}, true), IsEmpty());
}

TEST(NodeSelection, LoopbackCountsOnlyInAFabricOnLoopback) {
  EXPECT_THAT(Select({Node(1, "127.0.0.1", 1), Node(2, "127.0.0.2", 2)}, {"127.0.0.1"}), ElementsAre(1));
  const std::vector<cluster::NodeInfo> mixed{Node(1, "127.0.0.1", 1), Node(2, "10.0.0.2", 2)};
  EXPECT_THAT(Select(mixed, {"127.0.0.1"}), IsEmpty());
  EXPECT_THAT(Select(mixed, {"127.0.0.1", "10.0.0.2"}), ElementsAre(2));
  EXPECT_THAT(Select({Node(2, "10.0.0.2", 2)}, {"localhost", "::1"}), IsEmpty());
}

}  // namespace
}  // namespace vyn::services
