#include "platform/net/sockets.h"

#include <netinet/tcp.h>
#include <poll.h>

#include <cerrno>
#include <cstring>

namespace vyn::net {

bool WaitFor(int descriptor, short events, const Deadline& deadline) {
  // The clock comes first: a socket that is always ready must not carry a call beyond its time.
  while (!deadline.HasLimit() || !deadline.IsOver()) {
    pollfd entry{descriptor, events, 0};
    const int ready = ::poll(&entry, 1, deadline.PollTime());
    if (ready > 0 || (ready < 0 && errno != EINTR)) {
      return true;  // an error of poll() shows again in the operation that follows
    }
  }
  return false;
}

NetOutcome Listen(const std::string& ip, std::uint16_t& port, int backlog, Descriptor& listener) {
  Address own;
  if (!own.Parse(ip, port)) {
    return {NetStatus::kBadAddress, {}};
  }
  Descriptor socket(::socket(own.Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  if (!socket || ::setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
      ::bind(socket.Get(), own.Get(), own.Size()) != 0 || ::listen(socket.Get(), backlog) != 0 ||
      !own.FillOwn(socket.Get())) {
    return {NetStatus::kBadSetting, std::strerror(errno)};
  }
  port = own.Port();
  listener = std::move(socket);
  return {};
}

void SetTcpOptions(int socket) {
  const int on = 1;
  ::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  ::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof(on));
  // A vanished host is found after 60 + 6 * 10 seconds. The kernel's own defaults take two hours.
  const int idle = 60;
  const int interval = 10;
  const int probes = 6;
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idle, sizeof(idle));
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &interval, sizeof(interval));
  ::setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof(probes));
}

}  // namespace vyn::net
