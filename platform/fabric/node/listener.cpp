#include "platform/fabric/node/listener.h"

#include "platform/fabric/node/thread_without_signals.h"
#include "platform/net/address.h"
#include "platform/net/sockets.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>

namespace vyn::fabric {

namespace {

/// The pause before the next attempt to accept when the process has no descriptor left.
constexpr int kExhaustedMilliseconds = 50;

std::int64_t Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

}  // namespace

Listener::Listener(net::Descriptor socket, bool link, Limits limits, Serve serve)
    : mSocket(std::move(socket)),
      mLink(link),
      mLimits(limits),
      mServe(std::move(serve)),
      mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!mWake) {
    throw std::system_error(errno, std::generic_category(), "no eventfd for a listener");
  }
  mThread = ThreadWithoutSignals([this] { Listen(); });
}

Listener::~Listener() {
  mStopping = true;
  Wake();
  mThread.join();
  sync::MutexLock lock(mMutex);
  for (const auto& connection : mConnections) {
    connection->stream.Shutdown();
  }
  mEmpty.Wait(lock, [this]() VYN_REQUIRES(mMutex) { return mConnections.empty(); });
  lock.Unlock();
  JoinFinished();
}

void Listener::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(mWake.Get(), &one, sizeof(one));
}

void Listener::Listen() {
  while (!mStopping) {
    pollfd waited[2] = {{mSocket.Get(), POLLIN, 0}, {mWake.Get(), POLLIN, 0}};
    ::poll(waited, 2, -1);
    std::uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(mWake.Get(), &count, sizeof(count));
    while (!mStopping) {
      JoinFinished();  // also while new connections keep coming
      net::Descriptor socket(::accept4(mSocket.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (socket) {
        try {
          Admit(std::move(socket));
        } catch (const std::exception&) {
          // Out of memory or threads: this connection is closed, the listener goes on.
        }
        continue;
      }
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        {
          sync::MutexLock lock(mMutex);
          CloseIdlest(nullptr);
        }
        ::poll(&waited[1], 1, kExhaustedMilliseconds);
      }
      if (errno != EINTR && errno != ECONNABORTED) {
        break;
      }
    }
  }
}

void Listener::Admit(net::Descriptor socket) {
  const std::string peer = PeerOf(socket.Get());
  if (mLink) {
    net::SetTcpOptions(socket.Get());
  }
  sync::MutexLock lock(mMutex);
  if (CountOpen(&peer) >= mLimits.perPeer
          ? !CloseIdlest(&peer)
          : CountOpen(nullptr) >= mLimits.connections && !CloseIdlest(nullptr)) {
    return;
  }
  mConnections.push_back(std::make_unique<Connection>(std::move(socket), peer));
  Connection& connection = *mConnections.back();
  connection.idleSince = Now();
  try {
    connection.thread = std::thread([this, &connection] { Run(connection); });
  } catch (...) {
    mConnections.pop_back();
    throw;
  }
}

std::size_t Listener::CountOpen(const std::string* peer) const {
  return static_cast<std::size_t>(
      std::count_if(mConnections.begin(), mConnections.end(), [peer](const auto& connection) {
        return !connection->closing && (peer == nullptr || connection->peer == *peer);
      }));
}

bool Listener::CloseIdlest(const std::string* peer) {
  Connection* idlest = nullptr;
  std::int64_t since = 0;
  for (const auto& connection : mConnections) {
    const std::int64_t idle = connection->idleSince;
    if (idle != 0 && !connection->closing && (idlest == nullptr || idle < since) &&
        (peer == nullptr || connection->peer == *peer)) {
      idlest = connection.get();
      since = idle;
    }
  }
  if (idlest == nullptr) {
    return false;
  }
  idlest->closing = true;
  idlest->stream.Shutdown();
  return true;
}

void Listener::Run(Connection& connection) {
  try {
    mServe(connection.stream, connection.peer,
           [&connection](bool busy) { connection.idleSince = busy ? 0 : Now(); });
  } catch (const std::exception&) {
    // Out of memory: this connection ends, the node goes on.
  }
  sync::MutexLock lock(mMutex);
  const auto self = std::find_if(mConnections.begin(), mConnections.end(),
                                 [&](const auto& other) { return other.get() == &connection; });
  connection.stream.Shutdown();
  mFinished.splice(mFinished.end(), mConnections, self);
  Wake();
  mEmpty.NotifyAll();
}

void Listener::JoinFinished() {
  ConnectionList finished;
  {
    sync::MutexLock lock(mMutex);
    finished.swap(mFinished);
  }
  for (const auto& connection : finished) {
    connection->thread.join();
  }
}

std::string Listener::PeerOf(int socket) const {
  if (!mLink) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return std::to_string(peer.uid);
  }
  net::Address address;
  return address.FillPeer(socket) ? address.Ip() : "";
}

std::size_t Listener::Connections() const {
  sync::MutexLock lock(mMutex);
  return mConnections.size();
}

}  // namespace vyn::fabric
