#pragma once

// One connection's conversation with the node: what each request of the protocol does.

#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/node/neighbours.h"
#include "platform/fabric/node/pool/pool.h"
#include "platform/fabric/node/pulled_copies.h"
#include "platform/fabric/node/server_call.h"

#include <optional>

namespace vyn::fabric {

/// What the sessions of a node share.
struct NodeParts {
  std::uint16_t nodeId;
  Pool& pool;
  PulledCopies& copies;
  Neighbours& neighbours;
  NamespaceGuard namespaceGuard = nullptr;
  std::function<void(const std::string&)> warn = nullptr;
  UnpublishedObjects unpublished = nullptr;
};

/// Where a connection came in: the broker's UNIX socket or the link port.
enum class ListenerKind { kBroker, kLink };

/// Used by the connection's thread.
class FabricSession {
 public:
  FabricSession(NodeParts& parts, ListenerKind kind) : mParts(parts), mKind(kind) {}

  /// A CallHandler for ServeConnection.
  bool Handle(ServerCall& call, Reader& arguments);
  /// To be called when the connection has ended. \param how what ServeConnection returned.
  void OnConnectionEnd(net::IoStatus how);
  /// Whether the connection must stay, however long it is idle: it holds objects for its client.
  bool Holds() const { return !mHeld.empty(); }

 private:
  using NodePtr = std::shared_ptr<RemoteNode>;

  /// The object that the previous request allocated, kept until the next request arrives. If the connection
  /// is reset first, we assume that the client never read the answer; nobody else knows the id, so the object
  /// is freed.
  struct UnacknowledgedAllocation {
    NodePtr other;       // the owner; null for this node
    NamespacePtr space;  // when this node is the owner
    std::string ns;      // when another node is, with the token
    std::string token;
    std::string id;
    net::Deadline undoUntil;  // a later reset has another reason
  };

  bool Hello(ServerCall& call, Reader& arguments);
  bool Query(ServerCall& call, Reader& arguments);
  int CreateGuardedNamespace(const Access& access);
  bool CreateNamespace(ServerCall& call, Reader& arguments);
  bool DestroyNamespace(ServerCall& call, Reader& arguments);
  bool Allocate(ServerCall& call, Reader& arguments);
  bool AllocateBatch(ServerCall& call, Reader& arguments);
  bool Hold(ServerCall& call, Reader& arguments);
  bool Expand(ServerCall& call, Reader& arguments);
  bool Free(ServerCall& call, Reader& arguments);
  bool FreeBatch(ServerCall& call, Reader& arguments);
  bool Open(ServerCall& call, Reader& arguments);
  bool Stat(ServerCall& call, Reader& arguments);
  bool Read(ServerCall& call, Reader& arguments);
  bool Write(ServerCall& call, Reader& arguments);
  bool Copy(ServerCall& call, Reader& arguments);
  bool Exist(ServerCall& call, Reader& arguments);
  bool State(ServerCall& call, Reader& arguments);
  bool Sizes(ServerCall& call, Reader& arguments);

  /// Carries a request out where it belongs. \param owner the node of the object or namespace. \param remote
  /// called with the proxy when that is another node. \param local called when it is this node. Returns: the
  /// result for the caller: what was called returned, or that a link forwards nothing, or that the owner is
  /// not known.
  template <typename Remote, typename Local>
  int Forward(std::uint16_t owner, const Remote& remote, const Local& local) const {
    NodePtr other;
    const int result = Route(owner, other);
    if (result != 0) {
      return result;
    }
    return other != nullptr ? remote(other) : ResultForCaller(local());
  }
  /// Calls `act` with the namespace, if `access` has its token. Returns: -ENOENT, -EACCES, or what `act`
  /// does.
  template <typename Act>
  int InNamespace(const Access& access, const Act& act) const {
    NamespacePtr space;
    const int result = mParts.pool.Authorize(access, space);
    return result != 0 ? result : act(space);
  }

  /// Reads the ids of a question that only a link may ask. Returns: whether the question is valid.
  bool ReadIds(Reader& arguments, std::vector<std::string>& ids) const;
  /// Returns: 0 with `other` null when `owner` is this node; 0 with `other` when it is another one; otherwise
  /// the result for the caller.
  int Route(std::uint16_t owner, NodePtr& other) const;
  /// Returns: the protocol's result for a result of the pool.
  int ResultForCaller(int result) const;
  void FreeUnacknowledged(const UnacknowledgedAllocation& allocation);
  int OpenLocal(const ObjectName& object, bool writable, net::Descriptor& file, std::uint64_t& size) const;
  /// Allocates all objects or none, and holds the first one.
  int AllocateAll(const Access& access, std::uint32_t variable, const std::vector<std::uint64_t>& sizes,
                  std::vector<std::string>& ids, ServerCall& call);
  int HoldLocal(const ObjectName& object);
  /// Opens an object of this node in which `length` bytes at `offset` must lie.
  int OpenRange(const ObjectName& object, bool writable, std::uint64_t offset, std::uint64_t length,
                net::Descriptor& file) const;

  NodeParts& mParts;
  const ListenerKind mKind;
  bool mGreeted = false;
  std::optional<UnacknowledgedAllocation> mUnacknowledged;
  /// Files of objects that are open for writing until the connection ends. So the daemon sees that their
  /// writer lives, as it does for a writer of this machine.
  std::vector<net::Descriptor> mHeld;
};

}  // namespace vyn::fabric
