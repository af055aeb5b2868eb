#pragma once

// The broker's UNIX socket: connecting to it and listening on it. Threads: no state, any thread.

#include "platform/fabric/transport/socket_stream.h"

#include <memory>
#include <string>

namespace vyn::fabric {

/// Connects to the broker of a home. The path may be longer than a socket address can hold. \param error
/// errno of the failure. Returns: null on failure.
std::unique_ptr<SocketStream> ConnectToBroker(const std::string& home, net::Deadline deadline, int& error);

/// Makes <home>/run when it is missing and listens on the broker's socket in it. \param lock owns the
/// socket's lock file; as long as it lives no other node can serve the home. Returns: an invalid descriptor
/// with `error` filled.
net::Descriptor ListenOnBrokerSocket(const std::string& home, net::Descriptor& lock, std::string& error);

/// Removes the broker's socket file. Requires: the lock of ListenOnBrokerSocket is held.
void RemoveBrokerSocket(const std::string& home);

}  // namespace vyn::fabric
