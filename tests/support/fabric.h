#pragma once

// Fabric nodes and clients for tests: nodes in this process or as processes of their own, each with a home
// and a pool on tmpfs; and the check that a pool is left empty.

#include "platform/fabric/client/fabric_client.h"
#include "platform/fabric/node/fabric_node.h"
#include "support/child_process.h"
#include "support/proxy.h"
#include "support/temp_dir.h"
#include "support/test.h"

namespace vyn::test {

/// A home that every user may enter, and a pool's folder on tmpfs. Its end checks that whatever happened to
/// the nodes on it, a last one adopts the pool, and that the folder is empty once the namespaces are
/// destroyed.
class FabricPlace {
 public:
  explicit FabricPlace(std::uint16_t nodeId);
  ~FabricPlace();
  FabricPlace(const FabricPlace&) = delete;
  FabricPlace& operator=(const FabricPlace&) = delete;

  const std::string& Home() const { return mHome.Path(); }
  const std::string& Pool() const { return mPool.Path(); }
  std::uint16_t NodeId() const { return mNodeId; }

  /// Options of a node on this place, with a link port on loopback.
  fabric::FabricNodeOptions Options() const;

 private:
  const TempDir mHome;
  const TempDir mPool{"/dev/shm"};
  const std::uint16_t mNodeId;
};

/// The names in a folder and below, sorted; none when there is no such folder.
std::vector<std::string> NamesIn(const std::string& folder);

/// A fabric node as a process.
class FabricHost {
 public:
  /// \param more of its arguments. \param around a command that takes the node's own behind its last
  /// argument.
  explicit FabricHost(const FabricPlace& place, const std::vector<std::string>& more = {},
                      const std::vector<std::string>& around = {});

  std::uint16_t Port() const { return mPort; }
  ChildProcess& Process() { return mProcess; }
  void Knows(std::uint16_t nodeId, std::uint16_t port);
  /// Capacity, used, objects, namespaces, copies, copyBytes, pulls, connections.
  std::vector<std::uint64_t> Stats();

 private:
  ChildProcess mProcess;
  std::uint16_t mPort = 0;
};

/// programs/fabric_client with the built libbmclient.so. Its requests are the program's commands.
class FabricClient : public ChildProcess {
 public:
  /// \param home of its node, empty outside of all nodes.
  explicit FabricClient(const std::string& home);
  /// Returns: the id of a new object in the namespace "app" with the token "token".
  std::string Allocate(std::uint16_t node, std::uint64_t size);
};

/// A client with a namespace and token, in this process.
struct Tenant {
  fabric::FabricClient& client;
  std::string ns;
  std::string token;

  /// Keeps its texts by itself.
  struct Context : BmSecContext {
    explicit Context(const Tenant& tenant, const std::string& id = "") : mId(id) {
      mId.resize(64);
      *static_cast<BmSecContext*>(this) = {mId.data(), tenant.ns.c_str(), tenant.token.c_str()};
    }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;
    std::string mId;
  };
  /// Returns: the new object's id; the failure's number as text when there is none.
  std::string Allocate(std::uint16_t node, std::uint64_t size) const;
  int Write(const std::string& id, std::uint64_t offset, const std::string& bytes) const;
  /// Returns: the bytes, or the failure's number as text.
  std::string Read(const std::string& id, std::uint64_t offset, std::uint64_t length) const;
};

}  // namespace vyn::test
