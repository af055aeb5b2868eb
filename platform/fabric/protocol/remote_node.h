#pragma once

// A fabric node as the other side of a socket: the typed calls of the protocol, over a broker or a link.
//
// Connections are made when a call needs one, opened with a hello, and kept for the next; a broken one is
// replaced by the next call. Any thread may call anything; each call under way has a connection of its own,
// and no lock is held while it waits. Every wait has a deadline (protocol.h, "Time").
//
// Results are those of protocol.h; kBmUnconnected means that no connection could be made, or that it was lost
// or silent for too long before the answer: whether the call took effect is then unknown.

#include "platform/fabric/protocol/access.h"
#include "platform/fabric/protocol/channel.h"

#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace vyn::bm {

/// How long a call waits.
struct Timeouts {
  std::chrono::milliseconds connect = kConnectTimeout;
  std::chrono::milliseconds answer = kAnswerTimeout;
};

class RemoteNode {
 public:
  /// Makes a connected stream, or null. \param result of a failure; kBmUnconnected unless it is told.
  using Connect = std::function<std::unique_ptr<ByteStream>(Deadline deadline, int& result)>;

  using Progress = Channel::Progress;

  /// \param expectedNode the node that must answer, or kAnyNode.
  RemoteNode(Connect connect, PeerRole role, std::uint32_t expectedNode, Timeouts timeouts = {})
      : mConnect(std::move(connect)), mRole(role), mExpectedNode(expectedNode), mTimeouts(timeouts) {}

  /// Makes sure that the node can be reached. \param nodeId receives its id when not null.
  int Reach(std::uint16_t* nodeId = nullptr);

  /// For pthread_atfork: before the fork, and after it in parent and child. The child forgets the connections
  /// that are kept, they are its parent's.
  void LockForFork() { mMutex.lock(); }
  void UnlockAfterFork(bool child);

  int Query(NodeAttributes& attributes);
  int CreateNamespace(std::uint16_t node, const Access& access);
  /// \param progress here and below: asked, whenever the node says that it is still at work, whether the call
  /// is still wanted; what is not ends, with the connection, and the node sees that.
  int DestroyNamespace(std::uint16_t node, const Access& access, const Progress& progress = Channel::Wanted);
  /// A size above kMaxObjectSize is kBmNotEnoughCapacity without asking.
  int Allocate(std::uint16_t node, const Access& access, std::uint64_t size, std::string& id);
  int Expand(const ObjectName& object, std::uint64_t size);
  int Free(const ObjectName& object);
  /// \param ids any number, all of one owner. Returns: the first failure.
  int FreeBatch(const Access& access, const std::vector<std::string_view>& ids,
                const Progress& progress = Channel::Wanted);
  /// Broker only. \param writable in: the wish; out: whether the descriptor is for writing.
  int Open(const ObjectName& object, bool& writable, FileDescriptor& descriptor, std::uint64_t& size);
  int Stat(const ObjectName& object, std::uint64_t& size);
  int Copy(const ObjectName& source, std::uint64_t sourceOffset, const ObjectName& destination,
           std::uint64_t destinationOffset, std::uint64_t length, const Progress& progress = Channel::Wanted);
  /// \param exist receives one entry an id. Requires: at most kMaxIdsPerFrame ids.
  int Exist(const std::vector<std::string>& ids, std::vector<bool>& exist);

  /// Takes `length` bytes out of the channel; `position` counts from the beginning of the transfer. Anything
  /// but kOk ends the transfer.
  using Sink = std::function<IoStatus(Channel& channel, std::uint64_t position, std::uint32_t length)>;
  /// Gives `length` bytes, valid until the next call; null ends the transfer.
  using Source = std::function<const void*(std::uint64_t position, std::uint32_t length)>;

  /// Any length; chunked and pipelined. Nothing is moved when the range does not lie in the object. \param
  /// beyond bytes behind the range that must lie in the object, too: the caller is about to ask for them.
  /// kBmLocalError when the sink or source gives up.
  int Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const Sink& sink);
  int Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const Source& source);
  int Read(const ObjectName& object, std::uint64_t offset, std::uint64_t length, void* buffer,
           std::uint64_t beyond = 0);
  int Write(const ObjectName& object, std::uint64_t offset, std::uint64_t length, const void* buffer,
            std::uint64_t beyond = 0);

 private:
  int Acquire(std::unique_ptr<Channel>& channel);
  int Hello(Channel& channel, Deadline deadline);
  /// The result of a call that `channel` did not bring to its end. When it was taken up again, the node may
  /// have gone without a word, and those that are kept are no better: they are dropped.
  int Broken(const Channel& channel, IoStatus status);
  void Release(std::unique_ptr<Channel> channel);
  /// A chunked, pipelined kRead (with a sink) or kWrite (with a source).
  int Transfer(Operation operation, const ObjectName& object, std::uint64_t offset, std::uint64_t length,
               std::uint64_t beyond, const Sink* sink, const Source* source);
  /// One request and its answer, without data. \param extra beyond the usual time for the answer.
  int Call(Operation operation, std::string_view head, std::string& answer,
           std::chrono::milliseconds extra = {}, FileDescriptor* descriptor = nullptr,
           const Progress& progress = nullptr);

  const Connect mConnect;
  const PeerRole mRole;
  const std::uint32_t mExpectedNode;
  const Timeouts mTimeouts;

  std::mutex mMutex;  // guards the two below
  std::vector<std::unique_ptr<Channel>> mIdle;
  std::uint16_t mNodeId = 0;
};

}  // namespace vyn::bm
