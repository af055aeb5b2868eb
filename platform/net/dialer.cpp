#include "platform/net/dialer.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>

namespace vyn::rpc {

namespace {

/// An address with its port, of either family.
union Address {
  sockaddr mAny;
  sockaddr_in m4;
  sockaddr_in6 m6;

  std::uint16_t Port() const { return ntohs(mAny.sa_family == AF_INET ? m4.sin_port : m6.sin6_port); }
  socklen_t Size() const { return mAny.sa_family == AF_INET ? sizeof(m4) : sizeof(m6); }
  const unsigned char* Bytes() const { return BytesOf(&mAny); }
  std::size_t ByteCount() const { return mAny.sa_family == AF_INET ? sizeof(in_addr) : sizeof(in6_addr); }

  static const unsigned char* BytesOf(const sockaddr* address) {
    return address->sa_family == AF_INET ? reinterpret_cast<const unsigned char*>(
                                               &reinterpret_cast<const sockaddr_in*>(address)->sin_addr)
                                         : reinterpret_cast<const unsigned char*>(
                                               &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
  }
};

bool Parse(const std::string& ip, std::uint16_t port, Address& address) {
  std::memset(&address, 0, sizeof(address));
  if (inet_pton(AF_INET, ip.c_str(), &address.m4.sin_addr) == 1) {
    address.m4.sin_family = AF_INET;
    address.m4.sin_port = htons(port);
    return true;
  }
  if (inet_pton(AF_INET6, ip.c_str(), &address.m6.sin6_addr) == 1) {
    address.m6.sin6_family = AF_INET6;
    address.m6.sin6_port = htons(port);
    return true;
  }
  return false;
}

/// The interface for a connection to `peer`: none for a peer on this host, otherwise the first of `names`
/// whose network holds the peer, otherwise the first that is up.
Outcome ChooseInterface(const Address& peer, const std::vector<std::string>& names, std::string& chosen) {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return {kBadSetting, std::string("cannot read the network interfaces: ") + strerror(errno)};
  }
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
  // A smaller rank is better: position in `names`, behind all others when the network is not the peer's.
  std::size_t best = 2 * names.size();
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    const bool sameFamily = entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == peer.mAny.sa_family;
    const unsigned char* own = sameFamily ? Address::BytesOf(entry->ifa_addr) : nullptr;
    if (sameFamily && std::memcmp(own, peer.Bytes(), peer.ByteCount()) == 0) {
      chosen.clear();
      return {};
    }
    const auto name = std::find(names.begin(), names.end(), entry->ifa_name);
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
    return {kBadSetting, "no network interface that is up has the name \"" + all + "\" (UCX_NET_DEVICES)"};
  }
  return {};
}

bool IsLoopback(const Address& address) {
  return address.mAny.sa_family == AF_INET ? *address.Bytes() == IN_LOOPBACKNET
                                           : IN6_IS_ADDR_LOOPBACK(&address.m6.sin6_addr);
}

/// Milliseconds after which a peer that acknowledges nothing, as one whose host has vanished, is given up.
constexpr int kUnacknowledgedTime = 60000;

void SetOption(int socket, int level, int name, int value) {
  setsockopt(socket, level, name, &value, sizeof(value));
}

Outcome NewSocket(const Address& peer, const TransportSetting& setting, const std::string& device,
                  Descriptor& result) {
  result = Descriptor(::socket(peer.mAny.sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!result) {
    return {kNoMemory, std::string("no socket: ") + strerror(errno)};
  }
  SetOption(result.Get(), IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(result.Get(), IPPROTO_TCP, TCP_USER_TIMEOUT, kUnacknowledgedTime);
  if (setting.mKeepAliveSeconds > 0) {
    SetOption(result.Get(), SOL_SOCKET, SO_KEEPALIVE, 1);
    SetOption(result.Get(), IPPROTO_TCP, TCP_KEEPIDLE, setting.mKeepAliveSeconds);
    SetOption(result.Get(), IPPROTO_TCP, TCP_KEEPINTVL, setting.mKeepAliveSeconds);
  }
  if (!device.empty() && setsockopt(result.Get(), SOL_SOCKET, SO_BINDTODEVICE, device.c_str(),
                                    static_cast<socklen_t>(device.size())) != 0) {
    return {kBadSetting, "cannot bind to the network interface " + device + ": " + strerror(errno)};
  }
  return {};
}

/// Where the search for a local port goes on; shared, so that connections made one after the other do not all
/// begin at ports that are taken.
std::atomic<unsigned int> gNextPort{static_cast<unsigned int>(getpid()) * 31};

bool BindPort(int socket, sa_family_t family, std::uint16_t port) {
  // Lets a port be used again whose last connection, to this or another peer, has only just ended.
  SetOption(socket, SOL_SOCKET, SO_REUSEADDR, 1);
  Address own;
  std::memset(&own, 0, sizeof(own));
  own.mAny.sa_family = family;
  (family == AF_INET ? own.m4.sin_port : own.m6.sin6_port) = htons(port);
  return bind(socket, &own.mAny, own.Size()) == 0;
}

/// Makes a socket and begins to connect it. Returns: kOk with the connection made or under way.
Outcome Begin(const Address& peer, const TransportSetting& setting, const std::string& device,
              Descriptor& result) {
  const unsigned int count = setting.mFirstPort == 0 ? 1U : setting.mLastPort - setting.mFirstPort + 1U;
  const unsigned int start = count == 1 ? 0 : gNextPort.fetch_add(1, std::memory_order_relaxed);
  for (unsigned int attempt = 0; attempt < count; ++attempt) {
    const auto port = static_cast<std::uint16_t>(setting.mFirstPort + (start + attempt) % count);
    if (count > 1 && port == peer.Port()) {
      continue;  // where the peer is this host and its server is down, the socket would find itself
    }
    if (Outcome outcome = NewSocket(peer, setting, device, result); !outcome.Ok()) {
      return outcome;
    }
    if (setting.mFirstPort != 0) {
      if (!BindPort(result.Get(), peer.mAny.sa_family, port)) {
        if (errno == EADDRINUSE || errno == EACCES) {
          continue;
        }
        return {kBadSetting, std::string("cannot bind a local port: ") + strerror(errno)};
      }
    }
    if (::connect(result.Get(), &peer.mAny, peer.Size()) == 0 || errno == EINPROGRESS) {
      return {};
    }
    if (errno != EADDRNOTAVAIL && errno != EADDRINUSE) {
      return {kConnectionLost, strerror(errno)};
    }
  }
  if (setting.mFirstPort == 0) {
    return {kConnectionLost, "no local port is free"};
  }
  return {kBadSetting, "every local port from " + std::to_string(setting.mFirstPort) + " to " +
                           std::to_string(setting.mLastPort) + " is in use (UCX_TCP_PORT_RANGE)"};
}

/// Whether the socket is connected with itself: that happens on one host when its local port is the one that
/// nobody listens on.
bool IsOwnPeer(int socket) {
  Address own;
  Address peer;
  std::memset(&own, 0, sizeof(own));
  std::memset(&peer, 0, sizeof(peer));
  socklen_t ownSize = sizeof(own);
  socklen_t peerSize = sizeof(peer);
  return getsockname(socket, &own.mAny, &ownSize) == 0 && getpeername(socket, &peer.mAny, &peerSize) == 0 &&
         own.Port() == peer.Port() && own.mAny.sa_family == peer.mAny.sa_family &&
         std::memcmp(own.Bytes(), peer.Bytes(), own.ByteCount()) == 0;
}

}  // namespace

bool WaitFor(int descriptor, short events, const Deadline& deadline) {
  // The clock comes first: a socket that is always ready must not carry a call beyond its time.
  while (!deadline.HasLimit() || !deadline.IsOver()) {
    pollfd entry{descriptor, events, 0};
    const int ready = poll(&entry, 1, deadline.PollTime());
    if (ready > 0 || (ready < 0 && errno != EINTR)) {
      return true;  // an error of poll() shows again in the operation that follows
    }
  }
  return false;
}

Outcome Dial(const std::string& ip, std::uint16_t port, const TransportSetting& setting,
             const Deadline& deadline, Descriptor& socket) {
  Address peer;
  if (!Parse(ip, port, peer)) {
    return {kInvalidArgument, "\"" + ip + "\" is no IP address"};
  }
  std::string device;
  if (!setting.mInterfaces.empty() && !IsLoopback(peer)) {
    if (Outcome outcome = ChooseInterface(peer, setting.mInterfaces, device); !outcome.Ok()) {
      return outcome;
    }
  }
  Descriptor result;
  if (Outcome outcome = Begin(peer, setting, device, result); !outcome.Ok()) {
    return outcome;
  }
  if (!WaitFor(result.Get(), POLLOUT, deadline)) {
    return {kTimedOut, "no answer to the attempt to connect"};
  }
  int error = 0;
  socklen_t size = sizeof(error);
  if (getsockopt(result.Get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0) {
    error = errno;
  }
  if (error != 0) {
    return {error == ETIMEDOUT ? kTimedOut : kConnectionLost, strerror(error)};
  }
  if (IsOwnPeer(result.Get())) {
    return {kConnectionLost, strerror(ECONNREFUSED)};
  }
  socket = std::move(result);
  return {};
}

}  // namespace vyn::rpc
