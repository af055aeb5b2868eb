#pragma once

// Makes an outgoing TCP connection as the settings want it.

#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"
#include "platform/net/transport_setting.h"
#include "platform/rpc/wire/outcome.h"

#include <cstdint>
#include <string>

namespace vyn::rpc {

/// Connects to `ip` (IPv4 or IPv6, text form). `socket` becomes a connected, non-blocking socket that sends
/// at once. Returns: kOk; kConnectionLost, kTimedOut, kBadSetting or kInvalidArgument with the words.
Outcome Dial(const std::string& ip, std::uint16_t port, const TransportSetting& setting,
             const Deadline& deadline, Descriptor& socket);

/// Waits until `descriptor` is ready for `events` of poll(). Returns: false when the deadline came first.
bool WaitFor(int descriptor, short events, const Deadline& deadline);

}  // namespace vyn::rpc
