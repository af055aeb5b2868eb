#include "platform/net/dialer.h"

#include "platform/net/address.h"
#include "platform/net/sockets.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string_view>

namespace vyn::net {

namespace {

NetOutcome BadSetting(std::string text) { return {NetStatus::kBadSetting, std::move(text)}; }

/// The interface for a connection to `peer`: none for a peer on this host, otherwise the first of `names`
/// whose network holds the peer, otherwise the first that is up.
NetOutcome ChooseInterface(const Address& peer, const std::vector<std::string>& names, std::string& chosen) {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    return BadSetting(std::string("cannot read the network interfaces: ") + std::strerror(errno));
  }
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, ::freeifaddrs);
  // A smaller rank is better: the position in `names`, and after all of them where the network is not the
  // peer's.
  std::size_t best = 2 * names.size();
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const bool sameFamily = entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == peer.Family();
    const unsigned char* own = sameFamily ? Address::BytesOf(entry->ifa_addr) : nullptr;
    if (sameFamily && std::memcmp(own, peer.Bytes(), peer.ByteCount()) == 0) {
      chosen.clear();
      return {};
    }
    // Address labels, such as eth0:1, are no interfaces.
    const std::string_view label(entry->ifa_name);
    const auto name = std::find(names.begin(), names.end(), label.substr(0, label.find(':')));
    if (name == names.end() || (entry->ifa_flags & IFF_UP) == 0) {
      continue;
    }
    bool sameNetwork = sameFamily && entry->ifa_netmask != nullptr;
    for (std::size_t i = 0; sameNetwork && i < peer.ByteCount(); ++i) {
      const unsigned char mask = Address::BytesOf(entry->ifa_netmask)[i];
      sameNetwork = (own[i] & mask) == (peer.Bytes()[i] & mask);
    }
    const std::size_t rank =
        static_cast<std::size_t>(name - names.begin()) + (sameNetwork ? 0 : names.size());
    if (rank < best) {
      best = rank;
      chosen = *name;
    }
  }
  if (chosen.empty()) {
    std::string all;
    for (const std::string& name : names) {
      all += (all.empty() ? "" : ",") + name;
    }
    return BadSetting("no network interface that is up has the name \"" + all + "\" (UCX_NET_DEVICES)");
  }
  return {};
}

void SetOption(int socket, int level, int name, int value) {
  ::setsockopt(socket, level, name, &value, sizeof(value));
}

NetOutcome NewSocket(const Address& peer, const DialOptions& options, const std::string& device,
                     Descriptor& result) {
  result = Descriptor(::socket(peer.Family(), SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!result) {
    return {NetStatus::kNoSocket, std::string("no socket: ") + std::strerror(errno)};
  }
  SetOption(result.Get(), IPPROTO_TCP, TCP_NODELAY, 1);
  if (options.mUnacknowledgedTime > 0) {
    SetOption(result.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT, options.mUnacknowledgedTime);
  }
  if (options.mKeepAliveSeconds != 0) {
    SetOption(result.Get(), SOL_SOCKET, SO_KEEPALIVE, 1);
  }
  if (options.mKeepAliveSeconds > 0) {
    SetOption(result.Get(), IPPROTO_TCP, TCP_KEEPIDLE, options.mKeepAliveSeconds);
    SetOption(result.Get(), IPPROTO_TCP, TCP_KEEPINTVL, options.mKeepAliveSeconds);
  }
  if (!device.empty() && ::setsockopt(result.Get(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                                      static_cast<socklen_t>(device.size())) != 0) {
    return BadSetting("cannot bind to the network interface " + device + ": " + std::strerror(errno));
  }
  return {};
}

/// Where the next search for a local port begins. Shared by all connections: those made one after the other
/// would otherwise all begin at ports that are taken.
std::atomic<unsigned int> gNextPort{static_cast<unsigned int>(::getpid()) * 31};

bool BindPort(int socket, sa_family_t family, std::uint16_t port) {
  // Lets a port be used again whose last connection, to this or another peer, has only just ended.
  SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  const Address own(family, port);
  return ::bind(socket, own.Get(), own.Size()) == 0;
}

/// Makes a socket and begins to connect it. Returns: kOk with the connection made or under way.
NetOutcome Begin(const Address& peer, const DialOptions& options, const std::string& device,
                 Descriptor& result) {
  const unsigned int count = options.mFirstPort == 0 ? 1U : options.mLastPort - options.mFirstPort + 1U;
  const unsigned int start = count == 1 ? 0 : gNextPort.fetch_add(1, std::memory_order_relaxed);
  for (unsigned int attempt = 0; attempt < count; ++attempt) {
    const auto port = static_cast<std::uint16_t>(options.mFirstPort + (start + attempt) % count);
    if (count > 1 && port == peer.Port()) {
      continue;  // where the peer is this host and its server is down, the socket would connect to itself
    }
    if (NetOutcome outcome = NewSocket(peer, options, device, result); !outcome.Ok()) {
      return outcome;
    }
    if (options.mFirstPort != 0) {
      if (!BindPort(result.Get(), peer.Family(), port)) {
        if (errno == EADDRINUSE || errno == EACCES) {
          continue;
        }
        return BadSetting(std::string("cannot bind a local port: ") + std::strerror(errno));
      }
    }
    if (::connect(result.Get(), peer.Get(), peer.Size()) == 0 || errno == EINPROGRESS) {
      return {};
    }
    if (errno != EADDRNOTAVAIL && errno != EADDRINUSE) {
      return {NetStatus::kRefused, std::strerror(errno)};
    }
  }
  if (options.mFirstPort == 0) {
    return {NetStatus::kRefused, "no local port is free"};
  }
  return BadSetting("every local port from " + std::to_string(options.mFirstPort) + " to " +
                    std::to_string(options.mLastPort) + " is in use (UCX_TCP_PORT_RANGE)");
}

/// Whether the socket is connected with itself: that happens on one host when the system's choice of its
/// local port is the port that nobody listens on.
bool IsOwnPeer(int socket) {
  Address own;
  Address peer;
  return own.FillOwn(socket) && peer.FillPeer(socket) && own.Port() == peer.Port() &&
         own.Family() == peer.Family() && std::memcmp(own.Bytes(), peer.Bytes(), own.ByteCount()) == 0;
}

}  // namespace

NetOutcome Dial(const std::string& ip, std::uint16_t port, const DialOptions& options,
                const Deadline& deadline, Descriptor& socket) {
  Address peer;
  if (!peer.Parse(ip, port)) {
    return {NetStatus::kBadAddress, "\"" + ip + "\" is no IP address"};
  }
  std::string device;
  if (!options.mInterfaces.empty() && !peer.IsLoopback()) {
    if (NetOutcome outcome = ChooseInterface(peer, options.mInterfaces, device); !outcome.Ok()) {
      return outcome;
    }
  }
  Descriptor result;
  if (NetOutcome outcome = Begin(peer, options, device, result); !outcome.Ok()) {
    return outcome;
  }
  if (!WaitFor(result.Get(), POLLOUT, deadline)) {
    return {NetStatus::kTimedOut, "no answer to the attempt to connect"};
  }
  int error = 0;
  socklen_t size = sizeof(error);
  if (::getsockopt(result.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    error = errno;
  }
  if (error != 0) {
    return {error == ETIMEDOUT ? NetStatus::kTimedOut : NetStatus::kRefused, std::strerror(error)};
  }
  if (IsOwnPeer(result.Get())) {
    return {NetStatus::kRefused, std::strerror(ECONNREFUSED)};
  }
  socket = std::move(result);
  return {};
}

}  // namespace vyn::net
