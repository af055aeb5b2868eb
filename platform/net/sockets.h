#pragma once

// What both transports do with sockets besides connecting. Threads: no state, any thread.

#include "platform/net/address.h"
#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"
#include "platform/net/net_outcome.h"

#include <cstdint>
#include <string>

namespace vyn::net {

/// Waits until `descriptor` is ready for `events` of poll(). Returns: false when the deadline came first.
bool WaitFor(int descriptor, short events, const Deadline& deadline);

/// Listens on a numeric address. \param port 0 for any; receives the port that was bound. \param backlog as
/// of listen(). \param listener receives a non-blocking socket. Returns: kOk; kBadAddress without a text;
/// kBadSetting with the system's words.
NetOutcome Listen(const std::string& ip, std::uint16_t& port, int backlog, Descriptor& listener);

/// Sets the options of every TCP connection, on either side: small writes leave at once, and keep-alive
/// probes find a peer whose host has vanished, after two minutes.
void SetTcpOptions(int socket);

}  // namespace vyn::net
