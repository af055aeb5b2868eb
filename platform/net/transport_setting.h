#pragma once

// The operator's choices for outgoing connections, as the process's environment holds them.

#include "platform/rpc/wire/outcome.h"

#include <cstdint>
#include <string>
#include <vector>

namespace vyn::rpc {

struct TransportSetting {
  /// UCX_TLS. Only "tcp" and the empty text can be connected with.
  std::string mProtocol;
  /// UCX_NET_DEVICES: network interfaces that connections may leave by, peers on this host excepted. Empty:
  /// any.
  std::vector<std::string> mInterfaces;
  /// UCX_TCP_PORT_RANGE: bounds of the local port. 0 and 0: any.
  std::uint16_t mFirstPort = 0;
  std::uint16_t mLastPort = 0;
  /// UCX_TCP_KEEPINTVL, in seconds. 0: no keep-alive.
  int mKeepAliveSeconds = 0;

  /// Reads the four variables. Returns: kBadSetting when one cannot be understood or the protocol has no
  /// engine.
  static Outcome FromEnvironment(TransportSetting& setting);
};

}  // namespace vyn::rpc
