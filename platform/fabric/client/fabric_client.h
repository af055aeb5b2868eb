#pragma once

// The fabric's client: what libbmclient.so keeps for its process.
//
// On a machine of the fabric (client flag 0) all requests go to the broker of the machine's node, which
// forwards those for another node's objects, unless this process has made a link to that node. Outside the
// fabric (any other flag) all requests go over the links. A call that needs a connection makes it.
//
// Threads: any thread may call anything; no lock is held while a node is called. A forked child makes
// connections of its own and inherits the mappings made before the fork. Results are those of results.h.

#include "platform/fabric/client/bm_functions.h"
#include "platform/fabric/client/mapping_table.h"
#include "platform/fabric/client/object_location.h"
#include "platform/fabric/client/unpublished_batch.h"
#include "platform/fabric/protocol/protocol.h"
#include "platform/fabric/protocol/remote_node.h"
#include "platform/fabric/transport/link.h"
#include "platform/sync/mutex.h"
#include "platform/tls/client_setting.h"

#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vyn::fabric {

/// The flags of a gather: into an object that exists, or into a new one.
inline constexpr unsigned int kGatherExisting = 0x80;
inline constexpr unsigned int kGatherNew = 0x100;

class FabricClient {
 public:
  explicit FabricClient(Timeouts timeouts = {}) : mTimeouts(timeouts) {}

  /// Starts again: earlier links and connections are closed. \param home null or empty: the
  /// environment's VYN_HOME. \param links how this process secures its links. With TLS on, a link is under
  /// TLS or is refused.
  int Initialize(const char* home, int clientFlag, tls::ClientSetting links = {});
  /// Releases everything but the mappings. Calls in progress end by themselves.
  void Close();
  /// Forgets the mappings, which stay mapped: Unmap does not find them any more.
  void ForgetMappings() { mMappings.Clear(); }

  /// Links this process to a node, or moves the link to another address. \param ip numeric.
  /// Returns: kBmUnconnected when nobody answers; kBmRemoteProtocol when another node answers, or when one
  /// side refuses the other (only one of them uses TLS, or a certificate is not trusted); kBmLocalError when
  /// `ip` is no numeric address, or when a file that TLS needs cannot be read.
  int CreateLink(std::uint16_t nodeId, const char* ip, std::uint16_t port);
  int Query(NodeAttributes* attributes);
  int QueryNode(std::uint16_t nodeId, NodeAttributes* attributes);
  int CreateNamespace(std::uint16_t nodeId, const char* ns, const char* token);
  int DestroyNamespace(std::uint32_t nodeId, const char* ns, const char* token);

  int Allocate(const BmSecContext* context, std::uint64_t size, std::uint16_t nodeId);
  /// \param size the object's new size.
  int Expand(const BmSecContext* context, std::uint64_t size);
  /// Allocates the objects of a variable that is not published. \param ids receives their ids; the first one
  /// names the batch.
  int AllocateBatch(std::uint16_t nodeId, const Access& access, std::uint32_t variable,
                    std::span<const std::uint64_t> sizes, std::vector<std::string>& ids);
  /// \param first object of the batch. Returns: as UnpublishedBatch::Keep; -ENOENT for a batch that is not
  /// known.
  int KeepBatch(const BmSecContext* first);
  /// Ends the batch, if it is known: the variable is published, or its objects are freed.
  void EndBatch(const char* first);
  int Free(const BmSecContext* context);
  int FreeBatch(const char* const* ids, std::uint32_t count, const char* ns, const char* token);

  /// \param protection 1 to 3, as of mmap. A copy pulled from another node is always mapped read-only. \param
  /// flags 1, shared.
  int Map(const BmSecContext* context, int protection, int flags, void** address);
  int Unmap(const char* id, void* address);
  /// \param length receives the bytes that Map has mapped at `address`: as many as the object has.
  int MappedLength(const char* id, const void* address, std::uint64_t* length);
  /// Maps an object of `length` bytes over reserved pages. Unmap does not find it.
  int MapAt(const BmSecContext* context, int protection, void* address, std::uint64_t length);

  int Read(const BmSecContext* context, std::uint64_t offset, std::uint64_t length, void* buffer);
  int Write(const BmSecContext* context, std::uint64_t offset, std::uint64_t length, const void* buffer);
  int Copy(const BmSecContext* source, std::uint64_t sourceOffset, const BmSecContext* destination,
           std::uint64_t destinationOffset, std::uint64_t length);
  /// Fills the beginning of the object from a file that this process may read. \param length the object's
  /// size as the caller knows it; the part of the file must not be longer.
  int SwapIn(const BmFileRecord* file, const BmBlockRecord* block, std::uint64_t length);
  /// Writes the pieces of a list of the type kBmGatherPieces one after the other into the destination. It
  /// checks all pieces before it copies the first byte, so a refused piece leaves the destination alone. An
  /// existing destination must have room for all of them. For a new one an object of exactly their length is
  /// allocated, on the node of this machine or, in a process outside the fabric, on the node of the first
  /// piece. Its id is written to the destination's `bmId`, a buffer of at least 61 bytes. A gather that fails
  /// frees it again.
  int Gather(const BmGatherContext* list, unsigned int flags, const BmSecContext* destination);

  // Not checked: the mutex, and those of all nodes, stay held between the two calls.
  void LockForFork() VYN_NO_THREAD_SAFETY_ANALYSIS;
  void UnlockAfterFork(bool child) VYN_NO_THREAD_SAFETY_ANALYSIS;

 private:
  using NodePtr = std::shared_ptr<RemoteNode>;

  /// The proxy to call for objects of `nodeId`. \param local whether that is this machine's own node.
  int Route(std::uint16_t nodeId, NodePtr& node, bool& local);
  /// Calls `call` with the proxy to call for objects of `nodeId`. Returns: the call's result, or why there is
  /// no proxy.
  template <typename Call>
  int CallNode(std::uint16_t nodeId, const Call& call) {
    NodePtr node;
    bool local = false;
    const int result = Route(nodeId, node, local);
    return result != 0 ? result : call(*node);
  }
  /// Fills in how links are secured. Returns: kBmLocalError when a file that TLS needs cannot be read.
  int SecureLinks(LinkSecurity& security);
  /// The id of this machine's node.
  int LocalNode(std::uint16_t& nodeId);
  /// Gets the file of an object from the broker. \param writable as of RemoteNode::Open.
  int OpenFile(const BmSecContext* context, ObjectName& object, bool& writable, net::Descriptor& file,
               std::uint64_t& size);
  int Locate(const ObjectName& object, bool writable, ObjectLocation& place);
  /// The same of an object that a caller names. `place` refers to the texts of `object`.
  int Locate(const BmSecContext* context, bool writable, ObjectName& object, ObjectLocation& place);
  /// Locates an object in which the range must lie.
  int LocateRange(const ObjectName& object, std::uint64_t offset, std::uint64_t length, bool writable,
                  ObjectLocation& place);
  int AllocateAt(std::uint16_t nodeId, const Access& access, std::uint64_t size, std::string& id);
  int FreeObject(const ObjectName& object);
  int GatherPieces(const std::vector<BmGatherPiece>& pieces, const ObjectName& destination);

  const Timeouts mTimeouts;
  sync::Mutex mMutex;
  tls::ClientSetting mLinkSetting VYN_GUARDED_BY(mMutex);
  std::shared_ptr<tls::TlsContext> mLinkTls VYN_GUARDED_BY(mMutex);  // made by the first link that needs it
  NodePtr mBroker VYN_GUARDED_BY(mMutex);                            // null outside the fabric
  bool mKnowsLocal VYN_GUARDED_BY(mMutex) = false;
  std::uint16_t mLocalNode VYN_GUARDED_BY(mMutex) = 0;  // when known
  struct Link {
    std::string ip;
    std::uint16_t port;
    NodePtr node;
  };
  std::map<std::uint16_t, Link> mLinks VYN_GUARDED_BY(mMutex);
  /// By their first objects.
  std::map<std::string, std::shared_ptr<UnpublishedBatch>, std::less<>> mBatches VYN_GUARDED_BY(mMutex);
  MappingTable mMappings;
};

}  // namespace vyn::fabric
