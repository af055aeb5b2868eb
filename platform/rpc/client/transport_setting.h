#pragma once

// The operator's choices for outgoing connections, as the environment of the process holds them. Threads: a
// value; FromEnvironment calls getenv, which must not run beside setenv.

#include "platform/net/dialer.h"
#include "platform/rpc/wire/rpc_outcome.h"

#include <string>

namespace vyn::rpc {

/// UCX_NET_DEVICES, UCX_TCP_PORT_RANGE and UCX_TCP_KEEPINTVL fill the fields of DialOptions.
struct TransportSetting : net::DialOptions {
  /// UCX_TLS. Only "tcp" and the empty text can be connected with.
  std::string mProtocol;

  /// Reads the four variables. Returns: kBadSetting when one cannot be parsed or the protocol has no engine.
  static RpcOutcome FromEnvironment(TransportSetting& setting);
};

}  // namespace vyn::rpc
