#pragma once

// One client of a server: its handshake, its requests as they arrive, the replies that the socket has not
// taken yet.
//
// Reading and arming belong to the thread of the connection's loop; Send may be called from any thread.

#include "platform/rpc/deadline.h"
#include "platform/rpc/frame_reader.h"
#include "platform/rpc/server_core.h"
#include "platform/rpc/stream.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::rpc {

class ServerConnection : public std::enable_shared_from_this<ServerConnection>, private EventLoop::Watcher {
 public:
  /// Takes `descriptor` over, a connected, non-blocking socket.
  ServerConnection(std::shared_ptr<ServerCore> core, ServerLoop& loop, Descriptor descriptor,
                   std::string peer, std::unique_ptr<Stream> stream);

  /// Joins its loop. Loop thread.
  void Begin();
  /// Lets the connection go on: handshake, reading, writing, as far as that is possible now. Loop thread.
  void Pump();
  /// Pump, from any thread, later.
  void PostPump();
  /// PostPump for a connection that AdmitOrPark had put aside.
  void Resume();
  /// Closes the connection if one of its times is over. Loop thread.
  void Sweep(Deadline::Clock::time_point now);
  /// Loop thread. `reason` goes to the report unless it is empty.
  void Shut(const std::string& reason);

  /// Answers a call that was counted in, with `message` or, when `status` is not 0, with that status alone.
  /// What the socket does not take at once is kept and sent later. \param timeout milliseconds for that;
  /// below 1 is no limit of its own. Returns: kOk, kConnectionLost or kMessageTooLong.
  std::int32_t Send(std::uint64_t call, std::uint32_t id, std::size_t requestLength, std::int32_t status,
                    Message* message, std::int64_t timeout, Callback* callback);

  const std::string& Peer() const { return mPeer; }

 private:
  enum class Phase { kHandshake, kGreeting, kOpen, kClosed };

  /// Bytes that the socket has still to take, with the memory that they lie in.
  struct Output {
    std::unique_ptr<char[]> mCopied;
    std::vector<Buffer> mBuffers;
    std::vector<iovec> mParts;
    std::size_t mFirst = 0;
    Deadline mDeadline{-1};
    Callback* mCallback = nullptr;
    std::int32_t mStatus = 0;  // for the callback, once all is written
    std::size_t mRequestLength = 0;
    std::size_t mHeld = 0;  // counted in until it has gone
    bool mIsReply = false;
  };
  /// Calls that have ended, to be counted out when the lock is gone.
  using Ended = std::vector<Output>;

  enum class Step {
    kGo,    ///< on to the next step
    kWait,  ///< until the socket is ready for what Note has noted, or until something else wakes the
            ///< connection
    kEnd,   ///< close the connection
  };

  // With mMutex held. What ends the connection goes into `error`, which stays empty for a peer that just
  // leaves.
  Step StepHandshake(std::string& error);
  Step StepGreeting(std::string& error);
  Step NextFrame(Frame& frame, std::string& error);
  /// Writes what the socket takes. kWait when some of it is left.
  Step Write(std::vector<iovec>& parts, std::size_t& first, std::string& error);
  Step Flush(Ended& ended, std::string& error);
  /// Puts the rest of `parts`, from `first` on, behind mOutput: a header, then the buffers of `message`.
  /// Returns: null, or why that is not possible.
  const char* Keep(const std::vector<iovec>& parts, std::size_t first, Message* message, Output& output);
  const char* KeepReply(std::size_t first, std::int32_t status, Message* message, std::int64_t timeout,
                        Callback* callback, std::size_t requestLength);
  std::int32_t LayOut(FrameHeader& header, Message* message);
  /// A call has its answer. Returns: whether the connection may be read from again and was not.
  bool CountDown();
  Step Note(IoState state, std::string& error);
  /// Returns: the bytes of a request that was arriving, to be released when the lock is gone.
  std::size_t Close(Ended& ended);

  void Settle(Ended& ended, std::int32_t status);
  /// Tells the loop what to wait for.
  void Arm();
  void OnReady(std::uint32_t events) override;
  const std::shared_ptr<ServerCore> mCore;
  ServerLoop& mLoop;
  const std::string mPeer;

  // Changed by the loop's thread only, and closed by it when all others are locked out by Phase::kClosed.
  Descriptor mSocket;
  std::uint32_t mWatched = 0;

  /// Guards everything below.
  std::mutex mMutex;
  Phase mPhase = Phase::kHandshake;
  std::unique_ptr<Stream> mStream;
  FrameReader mReader;
  Greeting mPeerGreeting;
  std::size_t mGreetingRead = 0;
  std::deque<Output> mOutput;
  std::vector<iovec> mParts;  // of the reply being written
  std::size_t mPending = 0;   // calls that are not answered, or whose answer has not gone yet
  std::size_t mArriving = 0;  // bytes counted in for a long request that is not complete
  bool mPaused = false;       // not read from until one of them is answered
  bool mParked = false;       // not read from until the server has room
  bool mWantRead = false;
  bool mWantWrite = false;
  Deadline::Clock::time_point mLastActivity = Deadline::Clock::now();
  Deadline::Clock::time_point mFrameBegan{};
  Deadline::Clock::time_point mLastWritten{};
};

}  // namespace vyn::rpc
