#include "platform/rpc/server/server_core.h"

#include "platform/rpc/server/server_connection.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <exception>
#include <system_error>

namespace vyn::rpc {

namespace {

/// Connections taken from the listener before the loop's other work gets its turn.
constexpr int kAcceptsInTurn = 64;

/// How often the report tells at most that the byte limit is reached.
constexpr std::chrono::seconds kFullReportPause{10};

struct SocketAddress {
  sockaddr_storage mStorage{};
  socklen_t mSize = sizeof(sockaddr_storage);

  sockaddr* Any() { return reinterpret_cast<sockaddr*>(&mStorage); }
  sockaddr_in* V4() { return reinterpret_cast<sockaddr_in*>(&mStorage); }
  sockaddr_in6* V6() { return reinterpret_cast<sockaddr_in6*>(&mStorage); }
  bool IsV4() const { return mStorage.ss_family == AF_INET; }
  std::uint16_t Port() { return ntohs(IsV4() ? V4()->sin_port : V6()->sin6_port); }

  bool Parse(const std::string& address, std::uint16_t port) {
    if (inet_pton(AF_INET, address.c_str(), &V4()->sin_addr) == 1) {
      V4()->sin_family = AF_INET;
      V4()->sin_port = htons(port);
      mSize = sizeof(sockaddr_in);
      return true;
    }
    if (inet_pton(AF_INET6, address.c_str(), &V6()->sin6_addr) == 1) {
      V6()->sin6_family = AF_INET6;
      V6()->sin6_port = htons(port);
      mSize = sizeof(sockaddr_in6);
      return true;
    }
    return false;
  }

  std::string Text() {
    char text[INET6_ADDRSTRLEN] = "";
    inet_ntop(mStorage.ss_family, IsV4() ? static_cast<void*>(&V4()->sin_addr) : &V6()->sin6_addr, text,
              sizeof(text));
    return std::string(text) + ":" + std::to_string(Port());
  }
};

}  // namespace

thread_local ServerCore::Job ServerCore::mDeferred;

ServerCore::ServerCore(Server* server, ServerOptions options)
    : mServer(server), mOptions(std::move(options)) {}

ServerCore::~ServerCore() = default;

void ServerCore::Register(MessageId id, Handler handler, HandlerKind kind) {
  mHandlers[id.Value()] = {std::move(handler), kind};
}

Outcome ServerCore::CheckOptions() const {
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

Outcome ServerCore::Start(const std::string& address, std::uint16_t port) {
  if (mPort != 0 || IsStopping()) {
    return {kInvalidArgument, "a server starts once"};
  }
  if (Outcome outcome = CheckOptions(); !outcome.Ok()) {
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
    // Who met it, no memory most likely, is left to its time limits.
    mEvents = std::make_unique<EventLoop>([this](const char* what) { Report(what); });
    if (Outcome outcome = Listen(address, port); !outcome.Ok()) {
      return outcome;
    }
    StartThreads();
  } catch (const std::exception& error) {
    Stop();
    return {kNoMemory, std::string("cannot start the server's threads: ") + error.what()};
  }
  return {};
}

Outcome ServerCore::Listen(const std::string& address, std::uint16_t port) {
  SocketAddress own;
  if (!own.Parse(address, port)) {
    return {kInvalidArgument, "\"" + address + "\" is no IP address"};
  }
  Descriptor listener(socket(own.mStorage.ss_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!listener || setsockopt(listener.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      bind(listener.Get(), own.Any(), own.mSize) != 0 || listen(listener.Get(), SOMAXCONN) != 0 ||
      getsockname(listener.Get(), own.Any(), &own.mSize) != 0) {
    return {kBadSetting, "cannot listen on " + address + ":" + std::to_string(port) + ": " + strerror(errno)};
  }
  mPort = own.Port();
  mListener = std::move(listener);
  return {};
}

void ServerCore::StartThreads() {
  std::int64_t shortest = std::min(mOptions.mHandshakeTimeout, mOptions.mFrameTimeout);
  if (mOptions.mIdleTimeout > 0) {
    shortest = std::min(shortest, mOptions.mIdleTimeout);
  }
  mEvents->SetTick(std::chrono::milliseconds(std::clamp<std::int64_t>(shortest / 4, 10, 1000)),
                   [this] { Sweep(); });
  for (unsigned int i = 0; i < mOptions.mIoThreads + mOptions.mWorkerThreads; ++i) {
    mThreads.emplace_back([this] { mEvents->Run([this] { RunDeferred(); }); });
  }
  if (!mEvents->Watch(mListener.Get(), shared_from_this())) {
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
  {
    std::lock_guard lock(mAcceptMutex);
    if (mListener) {
      mEvents->Unwatch(mListener.Get());
      mListener.Close();
    }
  }
  {
    std::unique_lock lock(mMutex);
    mIdle.wait_for(lock, std::chrono::milliseconds(mOptions.mStopTimeout),
                   [this] { return mPendingCalls == 0; });
  }
  for (const auto& connection : AllConnections()) {
    connection->Shut("");
  }
  // Calls that no thread has begun end here, without an answer.
  std::deque<Job> dropped;
  {
    std::lock_guard lock(mJobsMutex);
    mNoJobs = true;
    dropped.swap(mJobs);
    mQueued = 0;
  }
  mEvents->Stop();
  for (std::thread& thread : mThreads) {
    thread.join();
  }
  mThreads.clear();
  // What was posted late holds connections, which hold this object. Running it may post again.
  while (mEvents->RunPosted()) {
  }
  std::lock_guard lock(mMutex);
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

void ServerCore::OnReady(std::uint32_t /*events*/) {
  try {
    Accept();
  } catch (const std::bad_alloc&) {
    std::lock_guard lock(mAcceptMutex);
    mAcceptPaused = true;  // those that wait are told of only once
    throw;
  }
}

void ServerCore::Accept() {
  for (int turn = 0; turn < kAcceptsInTurn; ++turn) {
    SocketAddress peer;
    Descriptor descriptor;
    int error = 0;
    bool pause = false;
    {
      std::lock_guard lock(mAcceptMutex);
      if (!mListener) {
        return;
      }
      descriptor =
          Descriptor(accept4(mListener.Get(), peer.Any(), &peer.mSize, SOCK_NONBLOCK | SOCK_CLOEXEC));
      error = descriptor ? 0 : errno;
      // The connection then stays in the listener's queue until the next tick: trying again at once would only
      // burn the processor.
      mAcceptPaused = error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM;
      pause = mAcceptPaused;
    }
    if (pause) {
      Report(std::string("cannot accept connections: ") + strerror(error));
      return;
    }
    if (descriptor) {
      Admit(std::move(descriptor), peer.Text());
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
      return;
    }
    // Anything else belongs to the one connection that could not be taken.
  }
  mEvents->Post([this] { Accept(); });
}

void ServerCore::Admit(Descriptor descriptor, std::string peer) {
  const int on = 1;
  setsockopt(descriptor.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(descriptor.Get(), SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  if (mOpen.load(std::memory_order_relaxed) >= mOptions.mMaxConnections) {
    Report(peer + ": turned away, " + std::to_string(mOptions.mMaxConnections) + " connections are open");
    if (!mOptions.mTls) {
      Greeting greeting;
      greeting.mStatus = kBusy;
      static_cast<void>(send(descriptor.Get(), &greeting, sizeof(greeting), MSG_NOSIGNAL | MSG_DONTWAIT));
    }
    return;
  }
  auto stream =
      mTls != nullptr ? mTls->NewStream(descriptor.Get()) : std::make_unique<PlainStream>(descriptor.Get());
  if (stream == nullptr) {
    Report(peer + ": no memory for a TLS connection");
    return;
  }
  auto connection = std::make_shared<ServerConnection>(shared_from_this(), std::move(descriptor),
                                                       std::move(peer), std::move(stream));
  mOpen.fetch_add(1, std::memory_order_relaxed);
  try {
    mEvents->Post([connection = std::move(connection)] { connection->Begin(); });
  } catch (const std::bad_alloc&) {
    mOpen.fetch_sub(1, std::memory_order_relaxed);
    throw;
  }
}

void ServerCore::Remember(const std::shared_ptr<ServerConnection>& connection) {
  std::lock_guard lock(mConnectionsMutex);
  mConnections.insert(connection);
}

void ServerCore::Forget(const std::shared_ptr<ServerConnection>& connection) {
  {
    std::lock_guard lock(mConnectionsMutex);
    mConnections.erase(connection);
  }
  if (mAnyParked.load()) {
    std::lock_guard lock(mMutex);
    std::erase(mParked, connection);
  }
  mOpen.fetch_sub(1, std::memory_order_relaxed);
}

std::vector<std::shared_ptr<ServerConnection>> ServerCore::AllConnections() {
  std::lock_guard lock(mConnectionsMutex);
  return {mConnections.begin(), mConnections.end()};
}

void ServerCore::Sweep() {
  bool accept = false;
  {
    std::lock_guard lock(mAcceptMutex);
    accept = std::exchange(mAcceptPaused, false);
  }
  if (accept) {
    Accept();
  }
  const auto now = Deadline::Clock::now();
  for (const auto& connection : AllConnections()) {
    connection->Sweep(now);
  }
}

bool ServerCore::AdmitOrPark(const std::shared_ptr<ServerConnection>& connection) {
  if (mPendingBytes.load() < mOptions.mMaxPendingBytes) {
    return true;
  }
  std::lock_guard lock(mMutex);
  // The mark comes before the second look and EndCall looks for it behind its subtraction: one of the two
  // sees the other.
  mAnyParked.store(true);
  if (mPendingBytes.load() < mOptions.mMaxPendingBytes) {
    return true;
  }
  mParked.push_back(connection);
  ReportFull();
  return false;
}

/// With mMutex held.
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
  Release(length);
  if (mPendingCalls.fetch_sub(1) == 1 && IsStopping()) {
    std::lock_guard lock(mMutex);
    mIdle.notify_all();
  }
}

void ServerCore::Release(std::size_t bytes) {
  const std::size_t left = mPendingBytes.fetch_sub(bytes) - bytes;
  if (!mAnyParked.load() || left >= mOptions.mMaxPendingBytes) {
    return;
  }
  std::vector<std::shared_ptr<ServerConnection>> resumed;
  {
    std::lock_guard lock(mMutex);
    mAnyParked.store(false);
    resumed.swap(mParked);
  }
  for (const auto& connection : resumed) {
    connection->Resume();
  }
}

bool ServerCore::HoldReply(std::size_t bytes) {
  // A single reply is always kept, however long it is.
  const std::size_t before = mWaitingBytes.fetch_add(bytes);
  if (before != 0 && before + bytes > mOptions.mMaxPendingBytes) {
    mWaitingBytes.fetch_sub(bytes);
    return false;
  }
  Hold(bytes);
  return true;
}

void ServerCore::ReleaseReply(std::size_t bytes) {
  mWaitingBytes.fetch_sub(bytes);
  Release(bytes);
}

void ServerCore::Dispatch(const std::shared_ptr<ServerConnection>& connection, const FrameHeader& header,
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
    EndCall(header.mLength);  // from here on the context does that
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
    std::lock_guard lock(mJobsMutex);
    if (mNoJobs) {
      return;
    }
    mJobs.push_back(std::move(job));
    ++mQueued;
    if (mBlocking >= mOptions.mWorkerThreads) {
      return;  // who is through with its own takes it
    }
  }
  mEvents->Wake();
}

void ServerCore::RunDeferred() {
  struct Turn {
    explicit Turn(ServerCore& core) : mCore(core) {}
    ~Turn() {
      std::lock_guard lock(mCore.mJobsMutex);
      --mCore.mBlocking;
    }
    ServerCore& mCore;
  };
  Job job = std::exchange(mDeferred, Job());
  while ((job.mEntry != nullptr || mQueued != 0) && TakeTurn(job)) {
    const Turn turn(*this);
    Run(*job.mEntry, job.mContext, job.mRequest);
    job = Job();
  }
}

/// Counts a thread in that is to run `job`, or the one that waits longest if `job` is none. Returns: false
/// when there is none or too many run already; `job` then waits.
bool ServerCore::TakeTurn(Job& job) {
  bool wake = false;
  {
    std::lock_guard lock(mJobsMutex);
    if (mNoJobs) {
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
