#include "platform/fabric/protocol/sockets.h"

#include "platform/fabric/protocol/protocol.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace vyn::bm {

namespace {

std::string BrokerFolder(const std::string& home) { return home + "/" + kBrokerFolder; }

std::string ErrorText(const std::string& what) { return what + ": " + std::strerror(errno); }

/// The address of the broker's socket in an open folder. A socket address holds 107 characters, a home may
/// have more: the way through the process's own descriptor of the folder is always short.
sockaddr_un BrokerAddress(int folder) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(folder) + "/" + kBrokerSocket;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

struct AddressList {
  addrinfo* first = nullptr;
  ~AddressList() {
    if (first != nullptr) {
      ::freeaddrinfo(first);
    }
  }
};

bool Resolve(const std::string& host, std::uint16_t port, bool passive, AddressList& list) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
  return ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list.first) == 0;
}

/// Waits for a connect that is under way. Returns: errno of its outcome, 0 when it stands.
int FinishConnect(int socket, Deadline deadline) {
  for (;;) {
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      return ETIMEDOUT;
    }
    pollfd waited{socket, POLLOUT, 0};
    const int ready = ::poll(&waited, 1, static_cast<int>(left.count()));
    if (ready > 0) {
      int outcome = 0;
      socklen_t length = sizeof(outcome);
      ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &outcome, &length);
      return outcome;
    }
    if (ready < 0 && errno != EINTR) {
      return errno;
    }
  }
}

/// Whether the socket is connected with itself: that happens where the kernel's choice of a local port is the
/// very one that nobody listens on.
bool IsOwnPeer(int socket) {
  sockaddr_storage own{};
  sockaddr_storage peer{};
  socklen_t ownLength = sizeof(own);
  socklen_t peerLength = sizeof(peer);
  return ::getsockname(socket, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
         ::getpeername(socket, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
         ownLength == peerLength && std::memcmp(&own, &peer, ownLength) == 0;
}

}  // namespace

std::unique_ptr<SocketStream> ConnectToBroker(const std::string& home, Deadline deadline, int& error) {
  const FileDescriptor folder(::open(BrokerFolder(home).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!folder || !socket) {
    error = errno;
    return nullptr;
  }
  const sockaddr_un address = BrokerAddress(folder.Get());
  // A full queue of a broker that does not accept shows as EAGAIN, and nothing can be polled for it.
  while (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    error = errno;
    if (error != EAGAIN && error != EINTR) {
      return nullptr;
    }
    if (std::chrono::steady_clock::now() >= deadline) {
      error = ETIMEDOUT;
      return nullptr;
    }
    ::poll(nullptr, 0, 10);
  }
  return std::make_unique<SocketStream>(std::move(socket), true);
}

bool IsNumericAddress(const std::string& host) {
  AddressList list;
  return !host.empty() && Resolve(host, 0, false, list);
}

std::unique_ptr<SocketStream> ConnectToLink(const std::string& host, std::uint16_t port, Deadline deadline,
                                            int& error) {
  AddressList list;
  if (!Resolve(host, port, false, list)) {
    error = EINVAL;
    return nullptr;
  }
  FileDescriptor socket(::socket(list.first->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!socket) {
    error = errno;
    return nullptr;
  }
  SetLinkOptions(socket.Get());
  error = ::connect(socket.Get(), list.first->ai_addr, list.first->ai_addrlen) == 0 ? 0 : errno;
  if (error == EINPROGRESS) {
    error = FinishConnect(socket.Get(), deadline);
  }
  if (error == 0 && IsOwnPeer(socket.Get())) {
    error = ECONNREFUSED;
  }
  return error == 0 ? std::make_unique<SocketStream>(std::move(socket)) : nullptr;
}

FileDescriptor ListenAsBroker(const std::string& home, FileDescriptor& lock, std::string& error) {
  const std::string path = BrokerFolder(home);
  if (::mkdir(path.c_str(), 0755) == 0) {
    ::chmod(path.c_str(), 0755);  // whatever the umask said
  } else if (errno != EEXIST) {
    error = ErrorText("cannot make the folder " + path);
    return {};
  }
  const FileDescriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    error = ErrorText("cannot open the folder " + path);
    return {};
  }
  const std::string lockName = std::string(kBrokerSocket) + ".lock";
  lock.Reset(::openat(folder.Get(), lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock || ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
    error = lock && errno == EWOULDBLOCK ? "another fabric node runs in the home " + home
                                         : ErrorText("cannot lock " + path + "/" + lockName);
    lock.Reset();
    return {};
  }
  FileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_un address = BrokerAddress(folder.Get());
  ::unlinkat(folder.Get(), kBrokerSocket, 0);  // of a node that was killed; the lock says that none lives
  if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::fchmodat(folder.Get(), kBrokerSocket, 0666, 0) != 0 || ::listen(socket.Get(), 256) != 0) {
    error = ErrorText("cannot listen on " + path + "/" + kBrokerSocket);
    lock.Reset();
    return {};
  }
  return socket;
}

void RemoveBrokerSocket(const std::string& home) {
  ::unlink((BrokerFolder(home) + "/" + kBrokerSocket).c_str());
}

FileDescriptor ListenAsLink(const std::string& address, std::uint16_t& port, std::string& error) {
  const std::string where = address + " port " + std::to_string(port);
  AddressList list;
  if (!Resolve(address, port, true, list)) {
    error = "not a numeric address to listen on: " + where;
    return {};
  }
  FileDescriptor socket(::socket(list.first->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket || ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      ::bind(socket.Get(), list.first->ai_addr, list.first->ai_addrlen) != 0 ||
      ::listen(socket.Get(), 256) != 0) {
    error = ErrorText("cannot listen on " + where);
    return {};
  }
  sockaddr_storage bound{};
  socklen_t length = sizeof(bound);
  ::getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&bound), &length);
  port = ntohs(bound.ss_family == AF_INET6 ? reinterpret_cast<const sockaddr_in6*>(&bound)->sin6_port
                                           : reinterpret_cast<const sockaddr_in*>(&bound)->sin_port);
  return socket;
}

void SetLinkOptions(int socket) {
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
}

}  // namespace vyn::bm
