#pragma once

// One client of a server: its handshake, its requests as they arrive, the replies that the socket has not
// taken yet.
//
// Any thread may call anything. One thread at a time pumps, that is, takes the connection as far as it goes;
// what others see meanwhile it looks for once more.

#include "platform/net/deadline.h"
#include "platform/net/stream.h"
#include "platform/rpc/server/server_core.h"
#include "platform/rpc/wire/frame_reader.h"

#include <chrono>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace vyn::rpc {

class ServerConnection : public std::enable_shared_from_this<ServerConnection>, public EventLoop::Watcher {
 public:
  /// Takes `descriptor` over, a connected, non-blocking socket.
  ServerConnection(std::shared_ptr<ServerCore> core, Descriptor descriptor, std::string peer,
                   std::unique_ptr<Stream> stream);

  /// Joins the event loop and goes on as far as possible.
  void Begin();
  /// Pumps, later, on a thread of the event loop. Without memory for that the connection ends.
  void PostPump();
  /// PostPump for a connection that AdmitOrPark had put aside.
  void Resume();
  /// Closes the connection if one of its times is over.
  void Sweep(Deadline::Clock::time_point now);
  /// Closes the connection if it is open. `reason` goes to the report unless it is empty.
  void Shut(const std::string& reason);
  void OnReady(std::uint32_t events) override;

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
  using Ended = std::list<Output>;  // which is passed on without memory

  enum class Step {
    kGo,    ///< on to the next step
    kWait,  ///< until the socket is ready, or until something else wakes the connection
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
  /// What an unfinished step of the stream means.
  Step After(IoState state, std::string& error) const;
  /// Ends all traffic; Buried tells the others when the lock is gone.
  void Close(Ended& ended);

  // Without mMutex.
  void Pump();
  bool PumpOnce();
  void Settle(Ended& ended, std::int32_t status);
  void Buried(Ended& ended, const std::string& reason);

  const std::shared_ptr<ServerCore> mCore;
  const std::string mPeer;

  /// Guards everything below.
  std::mutex mMutex;
  Descriptor mSocket;  // open unless mPhase is kClosed
  bool mPumping = false;
  bool mPumpAgain = false;
  Phase mPhase = Phase::kHandshake;
  std::unique_ptr<Stream> mStream;
  FrameReader mReader;
  Greeting mPeerGreeting;
  std::size_t mGreetingRead = 0;
  std::list<Output> mOutput;
  std::vector<iovec> mParts;  // of the reply being written
  std::size_t mPending = 0;   // calls that are not answered, or whose answer has not gone yet
  std::size_t mArriving = 0;  // bytes counted in for a long request that is not complete
  bool mPaused = false;       // not read from until one of them is answered
  bool mParked = false;       // not read from until the server has room
  Deadline::Clock::time_point mLastActivity = Deadline::Clock::now();
  Deadline::Clock::time_point mFrameBegan{};
  Deadline::Clock::time_point mLastWritten{};
};

}  // namespace vyn::rpc
