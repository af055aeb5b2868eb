#pragma once

// One client of a server: its handshake, its requests as they arrive, and the replies that the socket has not
// taken yet.
//
// Any thread may call anything. At most one thread pumps a connection: it reads, dispatches and writes until
// the socket would block. An event that arrives meanwhile sets mPumpAgain, and the pumping thread makes
// another pass.

#include "platform/net/deadline.h"
#include "platform/net/stream.h"
#include "platform/rpc/server/server_core.h"
#include "platform/rpc/wire/rpc_frame_reader.h"
#include "platform/sync/mutex.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace vyn::rpc {

class ServerConnection : public std::enable_shared_from_this<ServerConnection>, public EventLoop::Watcher {
 public:
  /// Takes ownership of `descriptor`, a connected, non-blocking socket.
  ServerConnection(std::shared_ptr<ServerCore> core, net::Descriptor descriptor, std::string peer,
                   std::unique_ptr<net::Stream> stream);

  /// Joins the event loop and pumps for the first time.
  void Start();
  /// Pumps later, on a thread of the event loop. Without memory for that the connection is closed.
  void PostPump();
  /// PostPump for a connection that ServerCore::AdmitOrPark has parked.
  void Resume();
  /// Closes the connection if one of its time limits has passed.
  void CheckTimeouts(net::Deadline::Clock::time_point now);
  /// Closes the connection if it is open. `reason` is reported unless it is empty.
  void Close(const std::string& reason);
  void OnReady(std::uint32_t events) override;

  /// Answers a call that was counted, with `message` or, when `status` is not 0, with that status alone.
  /// Bytes that the socket does not take at once are kept and sent later. \param timeout milliseconds for
  /// that; below 1 means no limit of its own. Returns: kOk, kConnectionLost or kMessageTooLong.
  std::int32_t Send(std::uint64_t call, std::uint32_t id, std::size_t requestLength, std::int32_t status,
                    Message* message, std::int64_t timeout, Callback* callback);

  const std::string& Peer() const { return mPeer; }

 private:
  enum class Phase { kHandshake, kGreeting, kOpen, kClosed };

  /// Bytes that are still to be written, with the memory that holds them.
  struct Output {
    std::unique_ptr<char[]> mCopied;
    std::vector<Buffer> mBuffers;
    std::vector<iovec> mParts;
    std::size_t mFirst = 0;
    net::Deadline mDeadline{-1};
    Callback* mCallback = nullptr;
    std::int32_t mStatus = 0;  // for the callback, once everything is written
    std::size_t mRequestLength = 0;
    std::size_t mHeld = 0;  // bytes counted by ServerCore::HoldReply
    bool mIsReply = false;
  };
  /// Outputs that were written or given up, to be completed after mMutex is released. A list: its entries
  /// move here without an allocation.
  using FinishedOutputs = std::list<Output>;

  enum class Step {
    kGo,    ///< go on with the next step
    kWait,  ///< until the socket is ready, or until something else wakes the connection
    kEnd,   ///< close the connection
  };

  // `error` receives the reason why the connection ends; it stays empty when the peer has just left.
  Step StepHandshake(std::string& error) VYN_REQUIRES(mMutex);
  Step StepGreeting(std::string& error) VYN_REQUIRES(mMutex);
  Step NextFrame(RpcFrame& frame, std::string& error) VYN_REQUIRES(mMutex);
  /// Writes as much as the socket takes. Returns: kWait when some of it is left.
  Step Write(std::vector<iovec>& parts, std::size_t& first, std::string& error) VYN_REQUIRES(mMutex);
  Step Flush(FinishedOutputs& finished, std::string& error) VYN_REQUIRES(mMutex);
  /// Appends the rest of `parts`, from `first` on, to mOutput: a header, then the buffers of `message`.
  /// Returns: null, or why that is not possible.
  const char* BufferRemainder(const std::vector<iovec>& parts, std::size_t first, Message* message,
                              Output& output) VYN_REQUIRES(mMutex);
  const char* BufferReply(std::size_t first, std::int32_t status, Message* message, std::int64_t timeout,
                          Callback* callback, std::size_t requestLength) VYN_REQUIRES(mMutex);
  /// Fills mParts with a reply and `header` with its length. Returns: kOk; kMessageTooLong for a message that
  /// the peer would refuse, kInvalidArgument for a buffer without an address: the reply then is a header
  /// alone, with kMessageTooLong or kNoAnswer.
  std::int32_t BuildReply(RpcFrameHeader& header, Message* message) VYN_REQUIRES(mMutex);
  /// Counts a call as answered. Returns: whether the connection was paused and may be read from again.
  bool FinishCall() VYN_REQUIRES(mMutex);
  /// The step that follows when a step of the stream ended in `state`.
  Step StepFor(net::IoState state, std::string& error) const VYN_REQUIRES(mMutex);
  /// Closes the socket. FinishClose must follow after mMutex is released.
  void CloseLocked(FinishedOutputs& finished) VYN_REQUIRES(mMutex);

  void Pump() VYN_EXCLUDES(mMutex);
  /// Returns: whether there may be more to do.
  bool PumpOnce() VYN_EXCLUDES(mMutex);
  /// Calls the callbacks of `finished` and counts its calls as answered. \param status kOk when all was
  /// written.
  void CompleteOutputs(FinishedOutputs& finished, std::int32_t status) VYN_EXCLUDES(mMutex);
  /// Completes what CloseLocked has given up, removes the connection from the core and reports `reason`.
  void FinishClose(FinishedOutputs& finished, const std::string& reason) VYN_EXCLUDES(mMutex);

  const std::shared_ptr<ServerCore> mCore;
  const std::string mPeer;

  sync::Mutex mMutex;
  net::Descriptor mSocket VYN_GUARDED_BY(mMutex);  // open unless mPhase is kClosed
  bool mPumping VYN_GUARDED_BY(mMutex) = false;
  bool mPumpAgain VYN_GUARDED_BY(mMutex) = false;
  Phase mPhase VYN_GUARDED_BY(mMutex) = Phase::kHandshake;
  std::unique_ptr<net::Stream> mStream VYN_GUARDED_BY(mMutex);
  RpcFrameReader mReader VYN_GUARDED_BY(mMutex);
  Greeting mPeerGreeting VYN_GUARDED_BY(mMutex);
  std::size_t mGreetingRead VYN_GUARDED_BY(mMutex) = 0;
  std::list<Output> mOutput VYN_GUARDED_BY(mMutex);
  std::vector<iovec> mParts VYN_GUARDED_BY(mMutex);  // of the reply being written
  std::size_t mPending VYN_GUARDED_BY(mMutex) =
      0;  // calls without an answer, or whose answer is not written yet
  std::size_t mArriving VYN_GUARDED_BY(mMutex) = 0;  // bytes counted for a long request that is not complete
  bool mPaused VYN_GUARDED_BY(mMutex) = false;  // not read from until one of the pending calls is answered
  bool mParked VYN_GUARDED_BY(mMutex) = false;  // not read from until the server's byte limit admits it
  net::Deadline::Clock::time_point mLastActivity VYN_GUARDED_BY(mMutex) = net::Deadline::Clock::now();
  net::Deadline::Clock::time_point mFrameBegan VYN_GUARDED_BY(mMutex){};
  net::Deadline::Clock::time_point mLastWritten VYN_GUARDED_BY(mMutex){};
};

}  // namespace vyn::rpc
