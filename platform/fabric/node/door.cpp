#include "platform/fabric/node/door.h"

#include "platform/fabric/node/quiet_thread.h"
#include "platform/fabric/protocol/sockets.h"

#include <netdb.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>

namespace vyn::bm {

namespace {

/// How long the door waits before it tries again when the process has no descriptor left.
constexpr int kExhaustedMilliseconds = 50;

std::int64_t Now() { return std::chrono::steady_clock::now().time_since_epoch().count(); }

}  // namespace

Door::Door(FileDescriptor listener, bool link, Limits limits, Serve serve)
    : mListener(std::move(listener)),
      mLink(link),
      mLimits(limits),
      mServe(std::move(serve)),
      mWake(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (!mWake) {
    throw std::system_error(errno, std::generic_category(), "no eventfd for a door");
  }
  mThread = QuietThread([this] { Listen(); });
}

Door::~Door() {
  mStopping = true;
  Wake();
  mThread.join();
  std::unique_lock lock(mMutex);
  for (const auto& connection : mConnections) {
    connection->stream.Shutdown();
  }
  mEmpty.wait(lock, [this] { return mConnections.empty(); });
  lock.unlock();
  JoinFinished();
}

void Door::Wake() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = ::write(mWake.Get(), &one, sizeof(one));
}

void Door::Listen() {
  while (!mStopping) {
    pollfd waited[2] = {{mListener.Get(), POLLIN, 0}, {mWake.Get(), POLLIN, 0}};
    ::poll(waited, 2, -1);
    std::uint64_t count = 0;
    [[maybe_unused]] const auto read = ::read(mWake.Get(), &count, sizeof(count));
    while (!mStopping) {
      JoinFinished();  // also while newcomers do not cease
      FileDescriptor socket(::accept4(mListener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
      if (socket) {
        try {
          Admit(std::move(socket));
        } catch (const std::exception&) {
          // Out of memory or threads: this one is closed, the door stays open.
        }
        continue;
      }
      if (errno == EMFILE || errno == ENFILE || errno == ENOMEM || errno == ENOBUFS) {
        {
          std::lock_guard lock(mMutex);
          EndIdlest(nullptr);
        }
        ::poll(&waited[1], 1, kExhaustedMilliseconds);
      }
      if (errno != EINTR && errno != ECONNABORTED) {
        break;
      }
    }
  }
}

void Door::Admit(FileDescriptor socket) {
  const std::string peer = PeerOf(socket.Get());
  if (mLink) {
    SetLinkOptions(socket.Get());
  }
  std::lock_guard lock(mMutex);
  if (Staying(&peer) >= mLimits.perPeer ? !EndIdlest(&peer)
                                        : Staying(nullptr) >= mLimits.connections && !EndIdlest(nullptr)) {
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

std::size_t Door::Staying(const std::string* peer) const {
  return static_cast<std::size_t>(
      std::count_if(mConnections.begin(), mConnections.end(), [peer](const auto& connection) {
        return !connection->leaving && (peer == nullptr || connection->peer == *peer);
      }));
}

bool Door::EndIdlest(const std::string* peer) {
  Connection* idlest = nullptr;
  std::int64_t since = 0;
  for (const auto& connection : mConnections) {
    const std::int64_t idle = connection->idleSince;
    if (idle != 0 && !connection->leaving && (idlest == nullptr || idle < since) &&
        (peer == nullptr || connection->peer == *peer)) {
      idlest = connection.get();
      since = idle;
    }
  }
  if (idlest == nullptr) {
    return false;
  }
  idlest->leaving = true;
  idlest->stream.Shutdown();
  return true;
}

void Door::Run(Connection& connection) {
  try {
    mServe(connection.stream, connection.peer,
           [&connection](bool busy) { connection.idleSince = busy ? 0 : Now(); });
  } catch (const std::exception&) {
    // Out of memory: this connection ends, the node goes on.
  }
  std::lock_guard lock(mMutex);
  const auto self = std::find_if(mConnections.begin(), mConnections.end(),
                                 [&](const auto& other) { return other.get() == &connection; });
  connection.stream.Shutdown();
  mFinished.splice(mFinished.end(), mConnections, self);
  Wake();
  mEmpty.notify_all();
}

void Door::JoinFinished() {
  ConnectionList finished;
  {
    std::lock_guard lock(mMutex);
    finished.swap(mFinished);
  }
  for (const auto& connection : finished) {
    connection->thread.join();
  }
}

std::string Door::PeerOf(int socket) const {
  if (!mLink) {
    ucred peer{};
    socklen_t length = sizeof(peer);
    ::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length);
    return std::to_string(peer.uid);
  }
  sockaddr_storage address{};
  socklen_t length = sizeof(address);
  char host[NI_MAXHOST] = "";
  if (::getpeername(socket, reinterpret_cast<sockaddr*>(&address), &length) == 0) {
    ::getnameinfo(reinterpret_cast<const sockaddr*>(&address), length, host, sizeof(host), nullptr, 0,
                  NI_NUMERICHOST);
  }
  return host;
}

std::size_t Door::Connections() const {
  std::lock_guard lock(mMutex);
  return mConnections.size();
}

}  // namespace vyn::bm
