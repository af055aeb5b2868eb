#pragma once

// Fabric nodes and clients for tests: nodes in this process or as processes of their own, each with a home
// and a pool on tmpfs; and the check that a pool is left empty.

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/node/fabric_node.h"
#include "support/process/child_process.h"
#include "support/temp_dir.h"

namespace vyn::test {

/// Options of a node with a link port on loopback.
fabric::FabricNodeOptions FabricOptions(const std::string& home, const std::string& pool, std::uint16_t node);

/// A directory that knows one node, which runs in this process.
fabric::NodeDirectory Directory(std::uint16_t known, const fabric::FabricNode& node);

/// Starts a node, for the first time or again.
void StartAgain(fabric::FabricNode& node, const fabric::FabricNodeOptions& options);

/// A home that every user may enter, and a pool's folder on tmpfs. Its end checks that whatever happened to
/// the nodes on it, a last one adopts the pool, and that the folder is empty once the namespaces are
/// destroyed.
class FabricPlace {
 public:
  explicit FabricPlace(std::uint16_t nodeId) : mNodeId(nodeId) { ::chmod(Home().c_str(), 0755); }
  ~FabricPlace();
  FabricPlace(const FabricPlace&) = delete;
  FabricPlace& operator=(const FabricPlace&) = delete;

  const std::string& Home() const { return mHome.Path(); }
  const std::string& Pool() const { return mPool.Path(); }
  std::uint16_t NodeId() const { return mNodeId; }
  fabric::FabricNodeOptions Options() const { return FabricOptions(Home(), Pool(), mNodeId); }

 private:
  const TempDir mHome;
  const TempDir mPool{"/dev/shm"};
  const std::uint16_t mNodeId;
};

/// The names in a folder and below, sorted; none when there is no such folder.
std::vector<std::string> NamesIn(const std::string& folder);

/// programs/fabric_process. Its requests are the program's commands. It ends in order, unless the test kills
/// it.
class FabricProcess : public ChildProcess {
 public:
  FabricProcess() : ChildProcess({VYN_TEST_PROGRAM_DIR "/fabric_process"}) {}
  FabricProcess(FabricProcess&&) = default;
  FabricProcess& operator=(FabricProcess&&) = default;
  ~FabricProcess() { Wait(); }
};

/// A node.
class FabricHost : public FabricProcess {
 public:
  explicit FabricHost(const FabricPlace& place);

  std::uint16_t Port() const { return mPort; }
  void Knows(std::uint16_t nodeId, std::uint16_t port);

 private:
  std::uint16_t mPort = 0;
};

/// A client.
class FabricClient : public FabricProcess {
 public:
  /// \param home of its node, empty outside of all nodes.
  explicit FabricClient(const std::string& home);
};

/// An object as a caller names it. A client takes it as it is; Allocate writes the id of a new one into it.
struct Object {
  std::string ns;
  std::string token;
  std::string id = std::string(fabric::kIdLength, '-');
  mutable BmSecContext context{};

  operator const BmSecContext*() const {
    context = {id.c_str(), ns.c_str(), token.c_str()};
    return &context;
  }
};

/// Returns: the bytes, or the failure's number as text.
std::string ReadObject(fabric::FabricClient& client, const Object& object, std::uint64_t offset,
                       std::uint64_t length);

}  // namespace vyn::test
