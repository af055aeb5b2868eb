#pragma once

// Makes an outgoing TCP connection. Threads: any.

#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"
#include "platform/net/net_outcome.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::net {

struct DialOptions {
  /// Network interfaces that the connection may leave by; peers on this host are reached without them. Empty:
  /// any. An operator names them in UCX_NET_DEVICES.
  std::vector<std::string> mInterfaces;
  /// Bounds of the local port, UCX_TCP_PORT_RANGE. 0 and 0: any.
  std::uint16_t mFirstPort = 0;
  std::uint16_t mLastPort = 0;
  /// Seconds without traffic after which the peer is probed. 0: never. Negative: as the system is set.
  int mKeepAliveSeconds = 0;
  /// Milliseconds after which a peer that acknowledges nothing is given up. 0: as the system is set.
  int mUnacknowledgedTime = 0;
};

/// Connects to a numeric address. `socket` becomes a connected, non-blocking socket whose small writes leave
/// at once. Returns: any NetStatus, with a text.
NetOutcome Dial(const std::string& ip, std::uint16_t port, const DialOptions& options,
                const Deadline& deadline, Descriptor& socket);

}  // namespace vyn::net
