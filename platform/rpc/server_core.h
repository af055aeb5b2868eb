#pragma once

// What all connections of a server share: the loops that read and write, the workers, the limits and the
// counts.
//
// A core outlives its server object for as long as a context of it exists somewhere; it does nothing more
// then. Calls may come from any thread unless they say otherwise.

#include "platform/rpc/descriptor.h"
#include "platform/rpc/event_loop.h"
#include "platform/rpc/frame.h"
#include "platform/rpc/outcome.h"
#include "platform/rpc/server.h"
#include "platform/rpc/worker_pool.h"
#include "platform/tls/tls_context.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace vyn::rpc {

class ServerConnection;

/// One thread with the connections that it reads from and writes to.
struct ServerLoop {
  EventLoop mEvents;
  /// Used by the loop's thread only.
  std::unordered_set<std::shared_ptr<ServerConnection>> mConnections;
  std::thread mThread;
};

class ServerCore : public std::enable_shared_from_this<ServerCore>, private EventLoop::Watcher {
 public:
  ServerCore(Server* server, ServerOptions options);
  ~ServerCore() override;

  void Register(MessageId id, Handler handler, HandlerKind kind);
  Outcome Start(const std::string& address, std::uint16_t port);
  void Stop();

  std::uint16_t Port() const { return mPort; }
  std::size_t Connections() const { return mOpen.load(std::memory_order_relaxed); }
  const ServerOptions& Options() const { return mOptions; }
  bool IsStopping() const { return mStopping.load(); }
  void Report(const std::string& line) const;

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
  /// Runs the handler of a request that was counted in, here or on a worker. Without one the caller is told
  /// so.
  void Dispatch(const std::shared_ptr<ServerConnection>& connection, const FrameHeader& header,
                Message request);
  /// Counts a connection out. Loop thread of the connection.
  void Forget(ServerLoop& loop, const std::shared_ptr<ServerConnection>& connection);

 private:
  struct Entry {
    Handler mHandler;
    HandlerKind mKind = HandlerKind::kMayBlock;
  };

  Outcome CheckOptions() const;
  Outcome Listen(const std::string& address, std::uint16_t port);
  void StartThreads();
  void RunLoop(EventLoop& events) const;
  /// The listener has connections.
  void OnReady(std::uint32_t events) override;
  void Admit(Descriptor descriptor, std::string peer);
  void Sweep(ServerLoop& loop);
  void StopOnce();
  void ReportFull();
  void Run(const Entry& entry, const std::shared_ptr<ServerContext>& context,
           const std::shared_ptr<Message>& request);

  Server* const mServer;
  const ServerOptions mOptions;
  // Constant once started.
  std::array<Entry, MessageId::kMask + 1> mHandlers;
  std::shared_ptr<tls::TlsContext> mTls;
  std::uint16_t mPort = 0;
  std::vector<std::unique_ptr<ServerLoop>> mLoops;
  std::unique_ptr<WorkerPool> mWorkers;

  // Used by the first loop's thread only.
  Descriptor mListener;
  std::size_t mNextLoop = 0;
  bool mAcceptPaused = false;

  std::atomic<bool> mStopping{false};
  std::atomic<std::size_t> mOpen{0};
  std::atomic<std::size_t> mPendingCalls{0};
  std::atomic<std::size_t> mPendingBytes{0};  // of requests, and of replies that wait
  std::atomic<std::size_t> mWaitingBytes{0};  // of replies that wait
  std::atomic<bool> mAnyParked{false};

  /// Guards mParked, mFullReported, and the fall of mPendingCalls to 0 against a Stop that begins to wait for it.
  std::mutex mMutex;
  std::condition_variable mIdle;
  std::vector<std::shared_ptr<ServerConnection>> mParked;
  EventLoop::Clock::time_point mFullReported{};
  std::once_flag mStopped;
};

}  // namespace vyn::rpc
