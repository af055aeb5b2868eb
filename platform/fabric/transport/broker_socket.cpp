#include "platform/fabric/transport/broker_socket.h"

#include "platform/fabric/protocol/protocol.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

namespace vyn::fabric {

namespace {

std::string BrokerFolder(const std::string& home) { return home + "/" + kBrokerFolder; }

std::string ErrorText(const std::string& what) { return what + ": " + std::strerror(errno); }

/// The address of the broker's socket in an open folder. A socket address holds 107 characters and a home may
/// have more: the path through this process's own descriptor of the folder is always short.
sockaddr_un BrokerAddress(int folder) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = "/proc/self/fd/" + std::to_string(folder) + "/" + kBrokerSocket;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return address;
}

}  // namespace

std::unique_ptr<SocketStream> ConnectToBroker(const std::string& home, net::Deadline deadline, int& error) {
  const net::Descriptor folder(::open(BrokerFolder(home).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  net::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!folder || !socket) {
    error = errno;
    return nullptr;
  }
  const sockaddr_un address = BrokerAddress(folder.Get());
  // When the broker's queue of connections is full, connect() gives EAGAIN, and poll() cannot wait for that.
  while (::connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    error = errno;
    if (error != EAGAIN && error != EINTR) {
      return nullptr;
    }
    if (deadline.IsOver()) {
      error = ETIMEDOUT;
      return nullptr;
    }
    ::poll(nullptr, 0, 10);
  }
  return std::make_unique<SocketStream>(std::move(socket), true);
}

net::Descriptor ListenOnBrokerSocket(const std::string& home, net::Descriptor& lock, std::string& error) {
  const std::string path = BrokerFolder(home);
  if (::mkdir(path.c_str(), 0755) == 0) {
    ::chmod(path.c_str(), 0755);  // whatever the umask said
  } else if (errno != EEXIST) {
    error = ErrorText("cannot make the folder " + path);
    return {};
  }
  const net::Descriptor folder(::open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) {
    error = ErrorText("cannot open the folder " + path);
    return {};
  }
  const std::string lockName = std::string(kBrokerSocket) + ".lock";
  lock.Reset(::openat(folder.Get(), lockName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
  if (!lock || ::flock(lock.Get(), LOCK_EX | LOCK_NB) != 0) {
    error = lock && errno == EWOULDBLOCK ? "another fabric node runs in the home " + home
                                         : ErrorText("cannot lock " + path + "/" + lockName);
    lock.Close();
    return {};
  }
  net::Descriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const sockaddr_un address = BrokerAddress(folder.Get());
  // A node that was killed leaves its socket behind; the lock proves that none is running.
  ::unlinkat(folder.Get(), kBrokerSocket, 0);
  if (!socket || ::bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
      ::fchmodat(folder.Get(), kBrokerSocket, 0666, 0) != 0 || ::listen(socket.Get(), 256) != 0) {
    error = ErrorText("cannot listen on " + path + "/" + kBrokerSocket);
    lock.Close();
    return {};
  }
  return socket;
}

void RemoveBrokerSocket(const std::string& home) {
  ::unlink((BrokerFolder(home) + "/" + kBrokerSocket).c_str());
}

}  // namespace vyn::fabric
