#include "support/fabric/fabric.h"

namespace vyn::test {

fabric::FabricNodeOptions FabricOptions(const std::string& home, const std::string& pool,
                                        std::uint16_t node) {
  fabric::FabricNodeOptions options;
  options.home = home;
  options.poolPath = pool;
  options.capacity = 1ULL << 30U;
  options.nodeId = node;
  options.listenAddress = "127.0.0.1";
  return options;
}

fabric::NodeDirectory Directory(std::uint16_t known, const fabric::FabricNode& node) {
  return [known, &node](std::uint16_t nodeId, fabric::NodeAddress& address) {
    address = {"127.0.0.1", node.LinkPort()};
    return nodeId == known;
  };
}

void StartAgain(fabric::FabricNode& node, const fabric::FabricNodeOptions& options) {
  std::string error;
  node.Stop();
  if (!node.Start(options, error)) {
    throw std::runtime_error("no fabric node: " + error);
  }
}

FabricPlace::~FabricPlace() {
  fabric::FabricNode node;
  std::string error;
  if (node.Start(Options(), error)) {
    for (const fabric::NamespaceInfo& info : node.Namespaces()) {
      EXPECT_EQ(node.DestroyNamespace(info.name), 0);
    }
    EXPECT_EQ(node.Stats().used, 0U);
  }
  EXPECT_EQ(error, "");
  node.Stop();
  EXPECT_EQ(NamesIn(Pool()), std::vector<std::string>());
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  try {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder)) {
      names.push_back(entry.path().lexically_relative(folder));
    }
  } catch (const std::filesystem::filesystem_error&) {  // a folder in it went while it was looked at
    return std::filesystem::exists(folder) ? NamesIn(folder) : std::vector<std::string>();
  }
  std::sort(names.begin(), names.end());
  return names;
}

FabricHost::FabricHost(const FabricPlace& place) {
  const std::string port =
      Ask("node " + place.Home() + " " + place.Pool() + " " + std::to_string(place.NodeId()) + " 1073741824");
  mPort = static_cast<std::uint16_t>(std::stoul(port.substr(2)));
}

void FabricHost::Knows(std::uint16_t nodeId, std::uint16_t port) {
  Ask("peer " + std::to_string(nodeId) + " 127.0.0.1 " + std::to_string(port));
}

FabricClient::FabricClient(const std::string& home) {
  EXPECT_EQ(Ask(home.empty() ? "init - 1" : "init " + home + " 0"), "0");
}

std::string ReadObject(fabric::FabricClient& client, const Object& object, std::uint64_t offset,
                       std::uint64_t length) {
  std::string bytes(length, '\0');
  const int result = client.Read(object, offset, length, bytes.data());
  return result == 0 ? bytes : std::to_string(result);
}

}  // namespace vyn::test
