#pragma once

// The proxy of a fabric node: the typed calls of the protocol, over a broker or a link.
//
// A call that finds no idle connection makes one and opens it with a hello; afterwards the connection is kept
// for the next call. A broken one is replaced by the next call. Any thread may call anything; each call in
// flight has a connection of its own, and no lock is held while it waits. Every wait has a deadline
// (protocol.h, "Time").
//
// Results are those of results.h. kBmUnconnected means that no connection could be made, or that it was lost
// or silent for too long before the answer; it is then unknown whether the call took effect.

#include "platform/fabric/protocol/access.h"
#include "platform/fabric/protocol/channel.h"
#include "platform/sync/mutex.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace vyn::fabric {

/// How long a call waits.
struct Timeouts {
  std::chrono::milliseconds connect = kConnectTimeout;
  std::chrono::milliseconds answer = kAnswerTimeout;
};

/// What the owner of an object says about its contents.
struct ObjectState {
  std::uint64_t size = 0;   ///< bytes
  std::uint64_t stamp = 0;  ///< another one after each write and each opening for writing
  bool beingWritten =
      false;  ///< a process has the object open or mapped for writing: bytes may change any time
  std::uint64_t checksum = 0;  ///< of the contents, if it was asked for (checksum.h)
};

class RemoteNode {
 public:
  /// Returns a connected stream, or null. \param result of a failure; kBmUnconnected unless it is set.
  using Connect = std::function<std::unique_ptr<ByteStream>(net::Deadline deadline, int& result)>;

  using Progress = Channel::Progress;

  /// \param expectedNode the node that must answer, or kAnyNode.
  RemoteNode(Connect connect, PeerRole role, std::uint32_t expectedNode, Timeouts timeouts = {})
      : mConnect(std::move(connect)), mRole(role), mExpectedNode(expectedNode), mTimeouts(timeouts) {}

  /// Makes sure that the node can be reached. \param nodeId receives its id when not null.
  int Reach(std::uint16_t* nodeId = nullptr);

  /// For pthread_atfork: before the fork, and after it in parent and child. The child drops the idle
  /// connections, which belong to its parent. Not checked: the mutex stays held between the two calls.
  void LockForFork() VYN_NO_THREAD_SAFETY_ANALYSIS { mMutex.lock(); }
  void UnlockAfterFork(bool child) VYN_NO_THREAD_SAFETY_ANALYSIS;

  int Query(NodeAttributes& attributes);
  int CreateNamespace(std::uint16_t node, const Access& access);
  /// \param progress here and below: called whenever the node reports that it is still working; false ends
  /// the call and its connection, which the node notices.
  int DestroyNamespace(std::uint16_t node, const Access& access,
                       const Progress& progress = Channel::AlwaysWanted);
  /// A size above kMaxObjectSize is kBmNotEnoughCapacity without asking.
  int Allocate(std::uint16_t node, const Access& access, std::uint64_t size, std::string& id);
  int Expand(const ObjectName& object, std::uint64_t size);
  int Free(const ObjectName& object);
  /// \param ids any number, all of one owner. Returns: the first failure.
  int FreeBatch(const Access& access, const std::vector<std::string_view>& ids,
                const Progress& progress = Channel::AlwaysWanted);
  /// Broker only. \param writable in: the wish; out: whether the descriptor is for writing.
  int Open(const ObjectName& object, bool& writable, net::Descriptor& descriptor, std::uint64_t& size);
  int Stat(const ObjectName& object, std::uint64_t& size);
  int State(const ObjectName& object, bool withChecksum, ObjectState& state,
            const Progress& progress = Channel::AlwaysWanted);
  int Copy(const ObjectName& source, std::uint64_t sourceOffset, const ObjectName& destination,
           std::uint64_t destinationOffset, std::uint64_t length,
           const Progress& progress = Channel::AlwaysWanted);
  /// \param exist receives one entry an id. Requires: at most kMaxIdsPerFrame ids.
  int Exist(const std::vector<std::string>& ids, std::vector<bool>& exist);

  /// \param sizes receives one entry an id, kNoObject for an object that the namespace does not have. Asks
  /// again when a kept connection has broken; starts no request after kSizesTimeout.
  int Sizes(std::string_view ns, const std::vector<std::string>& ids, std::vector<std::uint64_t>& sizes);

  /// Reads `length` bytes from the channel; `position` counts from the beginning of the transfer. Any other
  /// status than kOk ends the transfer.
  using Sink = std::function<net::IoStatus(Channel& channel, std::uint64_t position, std::uint32_t length)>;
  /// Gives `length` bytes, valid until the next call; null ends the transfer.
  using Source = std::function<const void*(std::uint64_t position, std::uint32_t length)>;

  /// Any length; chunked and pipelined. Nothing is moved when the range does not lie in the object. \param
  /// beyond bytes after the range that must lie in the object, too: the caller is about to ask for them.
  /// kBmLocalError when the sink or source gives up.
  int Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const Sink& sink);
  int Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const Source& source);
  int Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, void* buffer,
           std::uint64_t beyond = 0);
  int Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const void* buffer,
            std::uint64_t beyond = 0);

  /// One request and its answer, without data, over a connection that the caller keeps. \param channel made
  /// when it is null; null after a broken connection. \param extra beyond the usual time for the answer.
  /// \param descriptor receives the one that came with the answer; may be null.
  int CallOver(std::unique_ptr<Channel>& channel, FabricOperation operation, std::string_view head,
               std::string& answer, std::chrono::milliseconds extra, net::Descriptor* descriptor,
               const Progress& progress);

 private:
  int Acquire(std::unique_ptr<Channel>& channel);
  int Hello(Channel& channel, net::Deadline deadline);
  /// The result of a call that failed on `channel`. If the channel was a kept one, the node may have vanished
  /// silently; then the other idle channels are no better, and they are dropped.
  int ResultOfBroken(const Channel& channel, net::IoStatus status);
  void Release(std::unique_ptr<Channel> channel);
  /// A chunked, pipelined kRead (with a sink) or kWrite (with a source).
  int Transfer(FabricOperation operation, const ObjectName& object, std::uint64_t offset,
               std::uint64_t length, std::uint64_t beyond, const Sink* sink, const Source* source);
  /// CallOver, over a connection of the node's own.
  int Call(FabricOperation operation, std::string_view head, std::string& answer,
           std::chrono::milliseconds extra = {}, net::Descriptor* descriptor = nullptr,
           const Progress& progress = nullptr);

  const Connect mConnect;
  const PeerRole mRole;
  const std::uint32_t mExpectedNode;
  const Timeouts mTimeouts;

  sync::Mutex mMutex;
  std::vector<std::unique_ptr<Channel>> mIdle VYN_GUARDED_BY(mMutex);
  std::uint16_t mNodeId VYN_GUARDED_BY(mMutex) = 0;
};

}  // namespace vyn::fabric
