#pragma once

// One connection's conversation with the node: what each request of the protocol does.

#include "platform/fabric/node/exchange.h"
#include "platform/fabric/node/fabric_node.h"
#include "platform/fabric/node/neighbours.h"
#include "platform/fabric/node/pool/pool.h"
#include "platform/fabric/node/pulled_copies.h"

#include <optional>

namespace vyn::bm {

/// What the sessions of a node share.
struct NodeParts {
  std::uint16_t nodeId;
  Pool& pool;
  PulledCopies& copies;
  Neighbours& neighbours;
  NamespaceGuard namespaceGuard = nullptr;
  std::function<void(const std::string&)> warn = nullptr;
};

enum class DoorKind { kBroker, kLink };

/// Used by the connection's thread.
class Session {
 public:
  Session(NodeParts& parts, DoorKind door) : mParts(parts), mDoor(door) {}

  /// A Handler for ServeConnection.
  bool Handle(Exchange& exchange, Reader& arguments);
  /// The connection has ended. \param how what ServeConnection returned.
  void End(IoStatus how);

 private:
  /// The object that the last request allocated. Its id is taken for lost when the connection is reset, or
  /// ends with something untaken, before anything else comes from the caller: as far as can be told its
  /// answer was never read.
  struct Fresh {
    std::shared_ptr<RemoteNode> other;  // the owner, null for this node
    NamespacePtr space;                 // of this node
    std::string ns;                     // of another one
    std::string token;
    std::string id;
    Deadline believed;  // a reset later than this has another reason
  };

  bool Hello(Exchange& exchange, Reader& arguments);
  bool Query(Exchange& exchange, Reader& arguments);
  int MakeNamespace(const Access& access);
  bool CreateNamespace(Exchange& exchange, Reader& arguments);
  bool DestroyNamespace(Exchange& exchange, Reader& arguments);
  bool Allocate(Exchange& exchange, Reader& arguments);
  bool Expand(Exchange& exchange, Reader& arguments);
  bool Free(Exchange& exchange, Reader& arguments);
  bool FreeBatch(Exchange& exchange, Reader& arguments);
  bool Open(Exchange& exchange, Reader& arguments);
  bool Stat(Exchange& exchange, Reader& arguments);
  bool Read(Exchange& exchange, Reader& arguments);
  bool Write(Exchange& exchange, Reader& arguments);
  bool Copy(Exchange& exchange, Reader& arguments);
  bool Exist(Exchange& exchange, Reader& arguments);

  /// Where a request for an object or namespace of `owner` is to be done. Returns: 0 with `other` null: here;
  /// 0 with `other`: there; otherwise the answer: a link forwards nothing, and a node may be unknown.
  int Route(std::uint16_t owner, std::shared_ptr<RemoteNode>& other) const;
  /// A result of the pool as the caller is to see it.
  int Seen(int result) const;
  void Undo(const Fresh& fresh);
  int EnterAndOpen(const ObjectName& object, bool writable, FileDescriptor& file, std::uint64_t& size) const;
  bool ForwardRead(Exchange& exchange, RemoteNode& other, const ObjectName& object, std::uint64_t offset,
                   std::uint32_t length, std::uint64_t beyond);
  bool ForwardWrite(Exchange& exchange, RemoteNode& other, const ObjectName& object, std::uint64_t offset,
                    std::uint64_t beyond);

  NodeParts& mParts;
  const DoorKind mDoor;
  bool mGreeted = false;
  std::optional<Fresh> mFresh;
};

}  // namespace vyn::bm
