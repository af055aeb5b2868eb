#pragma once

// What all connections of a server share: the threads and their event loop, the limits and the counts.
//
// All threads are alike: each waits for events, reads and writes what they are about, and then runs the
// request that it read by itself, while the others wait. Only what it cannot run goes to another thread: a
// second request, or one above the number of handlers that may block at once.
//
// Locks: a connection's mutex comes before mMutex, and the event loop's own is the innermost; mAcceptMutex,
// mConnectionsMutex and mJobsMutex are taken without any of the others. None is held while a handler, a
// callback or the report runs.
//
// A core outlives its server object for as long as a context of it exists somewhere; it does nothing more
// then. Calls may come from any thread unless they say otherwise.

#include "platform/net/descriptor.h"
#include "platform/rpc/server/event_loop.h"
#include "platform/rpc/server/server.h"
#include "platform/rpc/wire/frame.h"
#include "platform/rpc/wire/outcome.h"
#include "platform/tls/tls_context.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace vyn::rpc {

class ServerConnection;

class ServerCore : public std::enable_shared_from_this<ServerCore>, public EventLoop::Watcher {
 public:
  ServerCore(Server* server, ServerOptions options);
  ~ServerCore() override;

  void Register(MessageId id, Handler handler, HandlerKind kind);
  Outcome Start(const std::string& address, std::uint16_t port);
  void Stop();

  std::uint16_t Port() const { return mPort; }
  std::size_t Connections() const { return mOpen.load(std::memory_order_relaxed); }
  /// Calls that are not answered, and the bytes that they and waiting replies hold.
  std::size_t PendingCalls() const { return mPendingCalls; }
  std::size_t PendingBytes() const { return mPendingBytes; }
  const ServerOptions& Options() const { return mOptions; }
  bool IsStopping() const { return mStopping.load(); }
  EventLoop& Events() { return *mEvents; }
  void Report(const std::string& line) const;
  void Report(const char* what) const noexcept;

  /// Whether there is room for one more request; if not, `connection` is resumed when there is.
  bool AdmitOrPark(const std::shared_ptr<ServerConnection>& connection);
  /// Counts a request in, and out again when its answer has gone; `length` is what it adds to the bytes that
  /// are held, and then takes off them.
  void BeginCall(std::size_t length);
  void EndCall(std::size_t length);
  /// Counts bytes of a request that is arriving in, and out again.
  void Hold(std::size_t bytes) { mPendingBytes.fetch_add(bytes); }
  void Release(std::size_t bytes);
  /// The same for bytes of a reply that has to wait. Returns: false when there are too many already.
  bool HoldReply(std::size_t bytes);
  void ReleaseReply(std::size_t bytes);
  /// Runs the handler of a request that was counted in, here and now or behind the events that the thread is
  /// at. Without one the caller is told so. Requires: a thread of the event loop.
  void Dispatch(const std::shared_ptr<ServerConnection>& connection, const FrameHeader& header,
                Message request);
  /// Counts a connection in, and out again.
  void Remember(const std::shared_ptr<ServerConnection>& connection);
  void Forget(const std::shared_ptr<ServerConnection>& connection);
  /// The listener has connections.
  void OnReady(std::uint32_t events) override;

 private:
  struct Entry {
    Handler mHandler;
    HandlerKind mKind = HandlerKind::kMayBlock;
  };

  /// A request whose handler may block.
  struct Job {
    const Entry* mEntry = nullptr;
    std::shared_ptr<ServerContext> mContext;
    std::shared_ptr<Message> mRequest;
  };

  Outcome CheckOptions() const;
  Outcome Listen(const std::string& address, std::uint16_t port);
  void StartThreads();
  void Accept();
  void Admit(Descriptor descriptor, std::string peer);
  std::vector<std::shared_ptr<ServerConnection>> AllConnections();
  void Sweep();
  void StopOnce();
  void ReportFull();
  void RunDeferred();
  void Queue(Job job);
  bool TakeTurn(Job& job);
  void Run(const Entry& entry, const std::shared_ptr<ServerContext>& context,
           const std::shared_ptr<Message>& request);

  Server* const mServer;
  const ServerOptions mOptions;
  // Constant once started.
  std::array<Entry, MessageId::kMask + 1> mHandlers;
  std::shared_ptr<tls::TlsContext> mTls;
  std::uint16_t mPort = 0;
  std::unique_ptr<EventLoop> mEvents;
  std::vector<std::thread> mThreads;

  /// Guards mListener and mAcceptPaused.
  std::mutex mAcceptMutex;
  Descriptor mListener;
  bool mAcceptPaused = false;

  /// Guards mConnections.
  std::mutex mConnectionsMutex;
  std::unordered_set<std::shared_ptr<ServerConnection>> mConnections;

  /// Guards mJobs, mBlocking and mNoJobs.
  std::mutex mJobsMutex;
  std::deque<Job> mJobs;       // bounded by the limits of the connections
  unsigned int mBlocking = 0;  // threads that run one
  bool mNoJobs = false;
  std::atomic<std::size_t> mQueued{0};  // as many as mJobs has; read without the lock
  static thread_local Job mDeferred;    // the thread's own

  std::atomic<bool> mStopping{false};
  std::atomic<std::size_t> mOpen{0};
  std::atomic<std::size_t> mPendingCalls{0};
  std::atomic<std::size_t> mPendingBytes{0};  // of requests, and of replies that wait
  std::atomic<std::size_t> mWaitingBytes{0};  // of replies that wait
  std::atomic<bool> mAnyParked{false};

  /// Guards mParked, mFullReported, and the fall of mPendingCalls to 0 against a Stop that begins to wait for
  /// it.
  std::mutex mMutex;
  std::condition_variable mIdle;
  std::vector<std::shared_ptr<ServerConnection>> mParked;
  EventLoop::Clock::time_point mFullReported{};
  std::once_flag mStopped;
};

}  // namespace vyn::rpc
