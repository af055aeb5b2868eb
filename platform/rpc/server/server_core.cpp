#include "platform/rpc/server/server_core.h"

#include "platform/net/sockets.h"
#include "platform/net/stream.h"
#include "platform/rpc/server/server_connection.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <system_error>

namespace vyn::rpc {

namespace {

/// The byte limit is reported at most once in this time.
constexpr std::chrono::seconds kFullReportPause{10};

}  // namespace

thread_local ServerCore::Job ServerCore::mDeferred;

ServerCore::ServerCore(Server* server, ServerOptions options)
    : mServer(server), mOptions(std::move(options)) {}

ServerCore::~ServerCore() = default;

void ServerCore::Register(MessageId id, RequestHandler handler, HandlerKind kind) {
  mHandlers[id.Value()] = {std::move(handler), kind};
}

RpcOutcome ServerCore::CheckOptions() const {
  if (mOptions.mIoThreads < 1 || mOptions.mIoThreads > 64 || mOptions.mWorkerThreads < 1 ||
      mOptions.mWorkerThreads > 1024) {
    return {kInvalidArgument, "a number of threads is out of range"};
  }
  if (mOptions.mMaxFrameLength > kLongestFrame || mOptions.mMaxConnections < 1 ||
      mOptions.mMaxPendingCalls < 1 || mOptions.mMaxPendingBytes < 1) {
    return {kInvalidArgument, "a limit is out of range"};
  }
  if (mOptions.mHandshakeTimeout < 1 || mOptions.mFrameTimeout < 1 || mOptions.mIdleTimeout < 0 ||
      mOptions.mStopTimeout < 0) {
    return {kInvalidArgument, "a time is out of range"};
  }
  if (mOptions.mAuthentication) {
    const auto type = mOptions.mSecurity.find("auth.type");
    return {kBadSetting, "authentication is on, but no mechanism is present for auth.type \"" +
                             (type == mOptions.mSecurity.end() ? std::string() : type->second) + "\""};
  }
  return {};
}

RpcOutcome ServerCore::Start(const std::string& address, std::uint16_t port) {
  if (mPort != 0 || IsStopping()) {
    return {kInvalidArgument, "a server starts once"};
  }
  if (RpcOutcome outcome = CheckOptions(); !outcome.Ok()) {
    return outcome;
  }
  if (mOptions.mTls) {
    std::string error;
    mTls = tls::TlsContext::ForServer(mOptions.mSecurity, error);
    if (mTls == nullptr) {
      return {kTlsError, std::move(error)};
    }
  }
  try {
    // Only reported: the connection concerned is not closed here, its timeouts will end it. In practice this
    // is bad_alloc.
    mEvents = std::make_unique<EventLoop>([this](const char* what) { Report(what); });
    mAcceptor = std::make_shared<Acceptor>(
        *mEvents,
        [this](net::Descriptor socket, std::string peer) { Admit(std::move(socket), std::move(peer)); },
        [this](const std::string& line) { Report(line); });
    if (RpcOutcome outcome = mAcceptor->Listen(address, port); !outcome.Ok()) {
      return outcome;
    }
    mPort = port;
    StartThreads();
  } catch (const std::exception& error) {
    Stop();
    return {kNoMemory, std::string("cannot start the server's threads: ") + error.what()};
  }
  return {};
}

void ServerCore::StartThreads() {
  std::int64_t shortest = std::min(mOptions.mHandshakeTimeout, mOptions.mFrameTimeout);
  if (mOptions.mIdleTimeout > 0) {
    shortest = std::min(shortest, mOptions.mIdleTimeout);
  }
  mEvents->SetTick(std::chrono::milliseconds(std::clamp<std::int64_t>(shortest / 4, 10, 1000)), [this] {
    mAcceptor->Resume();
    CheckTimeouts();
  });
  for (unsigned int i = 0; i < mOptions.mIoThreads + mOptions.mWorkerThreads; ++i) {
    mThreads.emplace_back([this] { mEvents->Run([this] { RunDeferred(); }); });
  }
  if (!mAcceptor->Start()) {
    throw std::system_error(errno, std::generic_category(), "listener");
  }
}

void ServerCore::Stop() {
  mStopping.store(true);
  std::call_once(mStopped, [this] { StopOnce(); });
}

void ServerCore::StopOnce() {
  if (mEvents == nullptr) {
    return;
  }
  if (mAcceptor != nullptr) {
    mAcceptor->Stop();
  }
  {
    sync::MutexLock lock(mMutex);
    mIdle.WaitFor(lock, std::chrono::milliseconds(mOptions.mStopTimeout),
                  [this] { return mPendingCalls == 0; });
  }
  for (const auto& connection : AllConnections()) {
    connection->Close("");
  }
  // Calls that no thread has begun end here, without an answer.
  std::deque<Job> dropped;
  {
    sync::MutexLock lock(mJobsMutex);
    mDropJobs = true;
    dropped.swap(mJobs);
    mQueued = 0;
  }
  mEvents->Stop();
  for (std::thread& thread : mThreads) {
    thread.join();
  }
  mThreads.clear();
  // Functions that were posted late hold connections, which hold this object. Running them may post again.
  while (mEvents->RunPosted()) {
  }
  sync::MutexLock lock(mMutex);
  mParked.clear();
}

void ServerCore::Report(const std::string& line) const {
  if (mOptions.mReport) {
    mOptions.mReport(line);
  }
}

void ServerCore::Report(const char* what) const noexcept {
  try {
    Report(std::string(what));
  } catch (const std::exception&) {
    static_cast<void>(what);  // the line is lost, the server goes on
  }
}

void ServerCore::Admit(net::Descriptor descriptor, std::string peer) {
  net::SetTcpOptions(descriptor.Get());
  if (mOpen.load(std::memory_order_relaxed) >= mOptions.mMaxConnections) {
    Report(peer + ": turned away, " + std::to_string(mOptions.mMaxConnections) + " connections are open");
    if (!mOptions.mTls) {
      Greeting greeting;
      greeting.mStatus = kBusy;
      static_cast<void>(send(descriptor.Get(), &greeting, sizeof(greeting), MSG_NOSIGNAL | MSG_DONTWAIT));
    }
    return;
  }
  auto stream = mTls != nullptr ? mTls->NewStream(descriptor.Get())
                                : std::make_unique<net::PlainStream>(descriptor.Get());
  if (stream == nullptr) {
    Report(peer + ": no memory for a TLS connection");
    return;
  }
  auto connection = std::make_shared<ServerConnection>(shared_from_this(), std::move(descriptor),
                                                       std::move(peer), std::move(stream));
  mOpen.fetch_add(1, std::memory_order_relaxed);
  try {
    mEvents->Post([connection = std::move(connection)] { connection->Start(); });
  } catch (const std::bad_alloc&) {
    mOpen.fetch_sub(1, std::memory_order_relaxed);
    throw;
  }
}

void ServerCore::AddConnection(const std::shared_ptr<ServerConnection>& connection) {
  sync::MutexLock lock(mConnectionsMutex);
  mConnections.insert(connection);
}

void ServerCore::RemoveConnection(const std::shared_ptr<ServerConnection>& connection) {
  {
    sync::MutexLock lock(mConnectionsMutex);
    mConnections.erase(connection);
  }
  if (mAnyParked.load()) {
    sync::MutexLock lock(mMutex);
    std::erase(mParked, connection);
  }
  mOpen.fetch_sub(1, std::memory_order_relaxed);
}

std::vector<std::shared_ptr<ServerConnection>> ServerCore::AllConnections() {
  sync::MutexLock lock(mConnectionsMutex);
  return {mConnections.begin(), mConnections.end()};
}

void ServerCore::CheckTimeouts() {
  const auto now = net::Deadline::Clock::now();
  for (const auto& connection : AllConnections()) {
    connection->CheckTimeouts(now);
  }
}

bool ServerCore::AdmitOrPark(const std::shared_ptr<ServerConnection>& connection) {
  if (mPendingBytes.load() < mOptions.mMaxPendingBytes) {
    return true;
  }
  sync::MutexLock lock(mMutex);
  // We set mAnyParked before we read mPendingBytes again; ReleaseBytes subtracts before it reads mAnyParked.
  // All four are sequentially consistent, so at least one side sees the other's write and no parked
  // connection is forgotten.
  mAnyParked.store(true);
  if (mPendingBytes.load() < mOptions.mMaxPendingBytes) {
    return true;
  }
  mParked.push_back(connection);
  ReportFull();
  return false;
}

void ServerCore::ReportFull() {
  const auto now = EventLoop::Clock::now();
  if (mFullReported != EventLoop::Clock::time_point{} && now - mFullReported < kFullReportPause) {
    return;
  }
  mFullReported = now;
  mEvents->Post([this] {
    Report("requests and waiting replies hold " + std::to_string(mPendingBytes.load()) +
           " bytes, the limit is " + std::to_string(mOptions.mMaxPendingBytes) +
           ": new requests have to wait");
  });
}

void ServerCore::BeginCall(std::size_t length) {
  mPendingCalls.fetch_add(1);
  mPendingBytes.fetch_add(length);
}

void ServerCore::EndCall(std::size_t length) {
  ReleaseBytes(length);
  if (mPendingCalls.fetch_sub(1) == 1 && IsStopping()) {
    sync::MutexLock lock(mMutex);
    mIdle.NotifyAll();
  }
}

void ServerCore::ReleaseBytes(std::size_t bytes) {
  const std::size_t left = mPendingBytes.fetch_sub(bytes) - bytes;
  if (!mAnyParked.load() || left >= mOptions.mMaxPendingBytes) {
    return;
  }
  std::vector<std::shared_ptr<ServerConnection>> resumed;
  {
    sync::MutexLock lock(mMutex);
    mAnyParked.store(false);
    resumed.swap(mParked);
  }
  for (const auto& connection : resumed) {
    connection->Resume();
  }
}

bool ServerCore::HoldReply(std::size_t bytes) {
  // A reply that waits alone is always accepted, however long it is.
  const std::size_t before = mWaitingBytes.fetch_add(bytes);
  if (before != 0 && before + bytes > mOptions.mMaxPendingBytes) {
    mWaitingBytes.fetch_sub(bytes);
    return false;
  }
  HoldBytes(bytes);
  return true;
}

void ServerCore::ReleaseReply(std::size_t bytes) {
  mWaitingBytes.fetch_sub(bytes);
  ReleaseBytes(bytes);
}

void ServerCore::Dispatch(const std::shared_ptr<ServerConnection>& connection, const RpcFrameHeader& header,
                          Message request) {
  const Entry& entry = mHandlers[header.mId];
  if (!entry.mHandler) {
    connection->Send(header.mCall, header.mId, header.mLength, kNoHandler, nullptr, -1, nullptr);
    return;
  }
  std::shared_ptr<ServerContext> context;
  try {
    context = std::make_shared<ServerContext>(connection, mServer, header.mCall, header.mId, header.mLength);
  } catch (const std::bad_alloc&) {
    EndCall(header.mLength);  // the context would have done this
    throw;
  }
  auto message = std::make_shared<Message>(std::move(request));
  if (entry.mKind == HandlerKind::kQuick) {
    Run(entry, context, message);
    return;
  }
  Job job{&entry, std::move(context), std::move(message)};
  if (mDeferred.mEntry == nullptr) {
    mDeferred = std::move(job);
  } else {
    Queue(std::move(job));
  }
}

void ServerCore::Queue(Job job) {
  {
    sync::MutexLock lock(mJobsMutex);
    if (mDropJobs) {
      return;
    }
    mJobs.push_back(std::move(job));
    ++mQueued;
    if (mBlocking >= mOptions.mWorkerThreads) {
      return;  // a thread that finishes its handler takes it
    }
  }
  mEvents->Wake();
}

void ServerCore::RunDeferred() {
  struct EndJob {
    explicit EndJob(ServerCore& core) : mCore(core) {}
    ~EndJob() {
      sync::MutexLock lock(mCore.mJobsMutex);
      --mCore.mBlocking;
    }
    ServerCore& mCore;
  };
  Job job = std::exchange(mDeferred, Job());
  while ((job.mEntry != nullptr || mQueued != 0) && BeginJob(job)) {
    const EndJob end(*this);
    Run(*job.mEntry, job.mContext, job.mRequest);
    job = Job();
  }
}

bool ServerCore::BeginJob(Job& job) {
  bool wake = false;
  {
    sync::MutexLock lock(mJobsMutex);
    if (mDropJobs) {
      return false;
    }
    if (mBlocking >= mOptions.mWorkerThreads) {
      if (job.mEntry != nullptr) {
        mJobs.push_back(std::move(job));
        ++mQueued;
      }
      return false;
    }
    if (job.mEntry == nullptr) {
      if (mJobs.empty()) {
        return false;
      }
      job = std::move(mJobs.front());
      mJobs.pop_front();
      --mQueued;
    }
    ++mBlocking;
    wake = !mJobs.empty() && mBlocking < mOptions.mWorkerThreads;
  }
  if (wake) {
    mEvents->Wake();
  }
  return true;
}

void ServerCore::Run(const Entry& entry, const std::shared_ptr<ServerContext>& context,
                     const std::shared_ptr<Message>& request) {
  try {
    entry.mHandler(context, request);
  } catch (const std::exception& error) {
    Report(context->PeerAddress() + ": the handler of message " + std::to_string(request->Id().Value()) +
           " failed: " + error.what());
  } catch (...) {
    Report(context->PeerAddress() + ": the handler of message " + std::to_string(request->Id().Value()) +
           " failed");
  }
}

}  // namespace vyn::rpc
