#pragma once

// A node of the memory fabric: the pool of shared pages of one machine, the broker that hands them to the
// processes of this machine, and the link port for everybody else. The daemon runs one in its own process.
//
// The pool is a folder on tmpfs with one file an object: <pool>/<namespace>/<id>. Folders have mode 0700,
// files 0600, all owned by the user of this process; clients never see a path, they get descriptors. Objects
// outlive the process: the next Start on the same folder adopts every namespace with its token (of which only
// a salted hash is kept) and every object. An object appears complete or not at all, so a process that is
// killed leaves nothing half done. Copies pulled from other nodes are in <pool>/.node; they are a cache,
// dropped at Start and Stop and whenever their room is needed.
//
// A free removes the name: pages that a process still maps stay allocated until it unmaps them. They no
// longer count as used, though the file system still holds them; when the file system is full before the
// limit is reached, allocations fail as well.
//
// A process that has an object mapped for writing can change the length of its file. Sweep and the next start
// truncate a larger file to the allocated size; after the object was freed nobody does, and the file keeps
// its pages until the last process closes it. A shorter file harms only its own namespace.
//
// Results are those of platform/fabric/protocol/results.h. Any thread may call any function between Start
// and Stop. Start and Stop themselves are called by one thread.

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vyn::fabric {

/// Where a node's link port is.
struct NodeAddress {
  std::string host;  ///< a numeric address
  std::uint16_t port = 0;
};

/// Fills `address` with the address on which node `nodeId` listens. Returns: false when it is not known.
/// Called from the node's own threads, several at once; may block for a short time.
using NodeDirectory = std::function<bool(std::uint16_t nodeId, NodeAddress& address)>;

/// Called before a client, of this machine or over a link, makes a namespace that this node does not have, or
/// has with another token. Returns: 0, or the result for the client: -EACCES when the cluster knows another
/// token for the name. Called from the node's own threads, several at once; may block for as long as a client
/// waits.
using NamespaceGuard = std::function<int(const std::string& ns, const std::string& token)>;

/// Called when a process outside the fabric has made objects of a variable that it will publish, before the
/// answer. The node has the first one open for writing until that process ends or is lost. Called from the
/// node's own threads, several at once; must not wait for another process.
using UnpublishedObjects =
    std::function<void(const std::string& ns, std::uint32_t variable, const std::vector<std::string>& ids)>;

/// Writes a line to the log of the process. \param level as of spdlog: 2 info, 3 warn, 4 error.
using NodeLog = std::function<void(int level, const std::string& text)>;

struct FabricNodeOptions {
  /// The home whose run/ holds the broker socket. Empty: no broker.
  std::string home;
  /// The pool's folder, made when it is missing. It belongs to this node alone.
  std::string poolPath;
  /// Bytes that objects and pulled copies may take together, each rounded up to whole pages. At least one
  /// page.
  std::uint64_t capacity = 0;
  /// This node's id in the cluster. It is part of every object's id: a pool with objects of another node is
  /// refused.
  std::uint16_t nodeId = 0;
  /// Numeric address that the link port is bound to. Empty: no link port.
  std::string listenAddress;
  /// 0: any free port, see LinkPort().
  std::uint16_t linkPort = 0;
  /// Links under TLS 1.3: this node identifies itself by `linkIdentity` and verifies the others by
  /// `linkTrust` (platform/tls/tls_context.h, ForServer and ForClient). A peer that speaks no TLS is refused,
  /// on either side. Off: all links are plain, and a peer that wants TLS is refused.
  bool linkTls = false;
  std::map<std::string, const std::string> linkIdentity;
  std::map<std::string, const std::string> linkTrust;
  /// Null: no other node is known, and its objects cannot be reached from here.
  NodeDirectory directory;
  /// Null: the first client that makes a namespace sets its token.
  NamespaceGuard namespaceGuard;
  /// Null: nobody frees the objects of a process that ends before it publishes the variable.
  UnpublishedObjects unpublished;
  /// Null: silent.
  NodeLog log;

  /// Connections at the broker, and at the link port. When the limit is reached, the connection that has
  /// been idle longest is closed; when none is idle, the new one is refused. A connection that holds objects is
  /// never idle.
  std::uint32_t maxBrokerConnections = 1024;
  std::uint32_t maxLinkConnections = 1024;
  /// Of these, at most so many from one user of the machine (broker) or one address (link).
  std::uint32_t maxConnectionsPerPeer = 768;
  /// Seconds after which a connection without requests is closed; clients make a new one when they need it.
  std::uint32_t idleSeconds = 600;
};

struct FabricNodeStats {
  std::uint64_t capacity = 0;     ///< bytes
  std::uint64_t used = 0;         ///< bytes of objects, of pulled copies, and of files that are being made
  std::uint64_t objects = 0;      ///< owned by this node
  std::uint64_t namespaces = 0;   ///< of this node
  std::uint64_t copies = 0;       ///< pulled from other nodes
  std::uint64_t copyBytes = 0;    ///< of these, part of `used`
  std::uint64_t connections = 0;  ///< open at broker and link port
  std::uint64_t pulls = 0;        ///< completed since Start
};

struct ObjectInfo {
  std::string id;
  std::uint64_t size = 0;  ///< bytes, as requested
};

struct NamespaceInfo {
  std::string name;
  std::uint64_t objects = 0;
  std::uint64_t bytes = 0;  ///< of its objects, rounded up to pages
};

class FabricNode {
 public:
  FabricNode();
  /// Stops the node.
  ~FabricNode();
  FabricNode(const FabricNode&) = delete;
  FabricNode& operator=(const FabricNode&) = delete;

  /// Locks the pool's folder, adopts the objects in it and listens. Returns: true; on false nothing is open
  /// and `error` says what was wrong and where. A folder that another node holds, a home whose broker is up,
  /// and a folder of another user are refused.
  bool Start(const FabricNodeOptions& options, std::string& error);
  /// Stops listening, waits for the requests in progress, drops pulled copies. Objects stay. Does nothing
  /// when the node does not run.
  void Stop();

  /// Truncates files that a process has made larger, and drops pulled copies whose originals are gone. The
  /// process calls it every few seconds. It asks the other nodes, so it may block for some seconds for each.
  /// \param stopping ends the sweep early when it returns true.
  void Sweep(const std::function<bool()>& stopping);

  FabricNodeStats Stats() const;
  /// The link port that was bound; 0 without one.
  std::uint16_t LinkPort() const;

  // Calls for the process that runs the node. They present no token: that process decides who may call them.

  /// Returns: 0; kBmNamespaceExists when it exists with this token, -EACCES when with another one;
  /// kBmNamespaceInvalid for a name or token that cannot be one; kBmLocalError when the pool's folder fails.
  int CreateNamespace(const std::string& ns, const std::string& token);
  /// Frees all its objects too. Returns: 0, -ENOENT, kBmLocalError.
  int DestroyNamespace(const std::string& ns);
  /// Whether `token` is the namespace's. Returns: 0, -EACCES, -ENOENT.
  int CheckToken(const std::string& ns, const std::string& token) const;
  /// Makes an object of `size` zero bytes, with its pages reserved. \param id receives the 60 characters.
  /// Returns: 0, -ENOENT, kBmNotEnoughCapacity, kBmLocalError.
  int Allocate(const std::string& ns, std::uint64_t size, std::string& id);
  /// Returns: 0, -ENOENT.
  int Free(const std::string& ns, const std::string& id);
  /// Frees every one that exists. Returns: 0, or -ENOENT when one did not.
  int FreeBatch(const std::string& ns, const std::vector<std::string>& ids);

  /// \param writing receives whether a process of this machine has the object open or mapped for writing.
  /// \param stamp receives a number that changes whenever a process opens the object for writing.
  /// Returns: 0, -ENOENT, kBmLocalError.
  int IsBeingWritten(const std::string& ns, const std::string& id, bool& writing, std::uint64_t& stamp) const;

  /// Asks a node, this one or another, for the sizes of objects in one namespace. May block for some seconds.
  /// \param sizes receives one entry an id, kNoObject (protocol.h) for an object that the node does not have.
  /// Returns: 0; kBmUnconnected, kBmRemoteProtocol when the other node did not answer.
  int Sizes(std::uint16_t nodeId, const std::string& ns, const std::vector<std::string>& ids,
            std::vector<std::uint64_t>& sizes) const;

  /// Drops this node's copies of other nodes' objects. That process knows that the originals are gone, also
  /// when their owner has not freed them yet.
  void DropCopies(const std::vector<std::string>& ids);
  void DropCopies(const std::string& ns);

  /// In no particular order.
  std::vector<NamespaceInfo> Namespaces() const;
  /// \param objects receives the namespace's objects, in no particular order. Returns: 0, -ENOENT.
  int Objects(const std::string& ns, std::vector<ObjectInfo>& objects) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> mImpl;
};

}  // namespace vyn::fabric
