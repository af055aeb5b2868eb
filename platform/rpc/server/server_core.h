#pragma once

// What all connections of a server share: the threads and their event loop, the limits and the counters.
//
// All threads do the same: each waits for events, reads and writes the sockets concerned, and then runs the
// handler of the request that it read itself, while the other threads wait. Only a request that it cannot run
// goes to another thread: a second one, or one above the number of handlers that may block at once.
//
// Lock order: a connection's mutex before mMutex, and the event loop's mutex last; the acceptor's mutex,
// mConnectionsMutex and mJobsMutex are taken without any of the others. None is held while a handler, a
// callback or the report runs.
//
// A core outlives its server object for as long as one of its contexts exists; it does nothing more then.
// Calls may come from any thread unless they say otherwise.

#include "platform/net/descriptor.h"
#include "platform/rpc/server/acceptor.h"
#include "platform/rpc/server/event_loop.h"
#include "platform/rpc/server/server.h"
#include "platform/rpc/wire/frame.h"
#include "platform/rpc/wire/rpc_outcome.h"
#include "platform/sync/mutex.h"
#include "platform/tls/tls_context.h"

#include <array>
#include <atomic>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace vyn::rpc {

class ServerConnection;

class ServerCore : public std::enable_shared_from_this<ServerCore> {
 public:
  ServerCore(Server* server, ServerOptions options);
  ~ServerCore();

  void Register(MessageId id, RequestHandler handler, HandlerKind kind);
  RpcOutcome Start(const std::string& address, std::uint16_t port);
  void Stop();

  std::uint16_t Port() const { return mPort; }
  std::size_t Connections() const { return mOpen.load(std::memory_order_relaxed); }
  /// Calls that are not answered, and the bytes that they and the waiting replies hold.
  std::size_t PendingCalls() const { return mPendingCalls; }
  std::size_t PendingBytes() const { return mPendingBytes; }
  const ServerOptions& Options() const { return mOptions; }
  bool IsStopping() const { return mStopping.load(); }
  EventLoop& Events() { return *mEvents; }
  void Report(const std::string& line) const;
  void Report(const char* what) const noexcept;

  /// Whether the byte limit admits one more request. If not, `connection` is parked: it is resumed when the
  /// limit does.
  bool AdmitOrPark(const std::shared_ptr<ServerConnection>& connection);
  /// Counts a request, until its answer has been sent; `length` is added to the pending bytes, and taken off
  /// again.
  void BeginCall(std::size_t length);
  void EndCall(std::size_t length);
  /// Counts bytes of a request that is arriving, until it is complete.
  void HoldBytes(std::size_t bytes) { mPendingBytes.fetch_add(bytes); }
  void ReleaseBytes(std::size_t bytes);
  /// The same for bytes of a reply that has to wait. Returns: false when they would exceed the limit.
  bool HoldReply(std::size_t bytes);
  void ReleaseReply(std::size_t bytes);
  /// Runs the handler of a request that was counted: at once, or after the events that this thread is
  /// handling. Without a handler it answers kNoHandler. Requires: a thread of the event loop.
  void Dispatch(const std::shared_ptr<ServerConnection>& connection, const RpcFrameHeader& header,
                Message request);
  /// Enters a connection into the table, and removes it.
  void AddConnection(const std::shared_ptr<ServerConnection>& connection);
  void RemoveConnection(const std::shared_ptr<ServerConnection>& connection);

 private:
  struct Entry {
    RequestHandler mHandler;
    HandlerKind mKind = HandlerKind::kMayBlock;
  };

  /// A request whose handler may block.
  struct Job {
    const Entry* mEntry = nullptr;
    std::shared_ptr<ServerContext> mContext;
    std::shared_ptr<Message> mRequest;
  };

  RpcOutcome CheckOptions() const;
  void StartThreads();
  void Admit(net::Descriptor descriptor, std::string peer);
  std::vector<std::shared_ptr<ServerConnection>> AllConnections();
  void CheckTimeouts();
  void StopOnce();
  void ReportFull() VYN_REQUIRES(mMutex);
  void RunDeferred();
  void Queue(Job job);
  /// Counts this thread as one that runs `job`, or the job that has waited longest if `job` is empty.
  /// Returns: false when there is none or too many run already; `job` is then queued.
  bool BeginJob(Job& job);
  void Run(const Entry& entry, const std::shared_ptr<ServerContext>& context,
           const std::shared_ptr<Message>& request);

  Server* const mServer;
  const ServerOptions mOptions;
  // Constant once started.
  std::array<Entry, MessageId::kMask + 1> mHandlers;
  std::shared_ptr<tls::TlsContext> mTls;
  std::uint16_t mPort = 0;
  std::unique_ptr<EventLoop> mEvents;
  std::shared_ptr<Acceptor> mAcceptor;
  std::vector<std::thread> mThreads;

  sync::Mutex mConnectionsMutex;
  std::unordered_set<std::shared_ptr<ServerConnection>> mConnections VYN_GUARDED_BY(mConnectionsMutex);

  sync::Mutex mJobsMutex;
  std::deque<Job> mJobs VYN_GUARDED_BY(mJobsMutex);       // bounded by the limits of the connections
  unsigned int mBlocking VYN_GUARDED_BY(mJobsMutex) = 0;  // threads that run a job
  bool mDropJobs VYN_GUARDED_BY(mJobsMutex) = false;      // the server is stopping
  std::atomic<std::size_t> mQueued{0};                    // the size of mJobs; read without the lock
  static thread_local Job mDeferred;  // to run after the events that the thread is handling

  std::atomic<bool> mStopping{false};
  std::atomic<std::size_t> mOpen{0};
  std::atomic<std::size_t> mPendingCalls{0};
  std::atomic<std::size_t> mPendingBytes{0};  // of requests, and of replies that wait
  std::atomic<std::size_t> mWaitingBytes{0};  // of replies that wait
  std::atomic<bool> mAnyParked{false};

  /// EndCall takes it before it notifies mIdle, so that a Stop that has
  /// just read mPendingCalls does not miss the notification.
  sync::Mutex mMutex;
  sync::Condition mIdle;
  std::vector<std::shared_ptr<ServerConnection>> mParked VYN_GUARDED_BY(mMutex);
  EventLoop::Clock::time_point mFullReported VYN_GUARDED_BY(mMutex){};
  std::once_flag mStopped;
};

}  // namespace vyn::rpc
