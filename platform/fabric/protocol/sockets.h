#pragma once

// How the sockets of broker and links come to be: connecting and listening. Threads: no state, any thread.

#include "platform/fabric/protocol/socket_stream.h"

#include <memory>
#include <string>

namespace vyn::bm {

/// Connects to the broker of a home. A path too long for a socket address is no obstacle. \param error errno
/// of the failure. Returns: null on failure.
std::unique_ptr<SocketStream> ConnectToBroker(const std::string& home, Deadline deadline, int& error);

/// Whether `host` is an address that needs no name service.
bool IsNumericAddress(const std::string& host);

/// Connects to a link port. \param host a numeric address. Returns: null on failure; EINVAL for a host that
/// is none.
std::unique_ptr<SocketStream> ConnectToLink(const std::string& host, std::uint16_t port, Deadline deadline,
                                            int& error);

/// Makes <home>/run when it is missing and listens on the broker's socket in it. \param lock owns the
/// socket's lock file; as long as it lives no other node can take the home. Returns: an invalid descriptor
/// with `error` filled.
FileDescriptor ListenAsBroker(const std::string& home, FileDescriptor& lock, std::string& error);

/// Removes the broker's socket file. Requires: the lock of ListenAsBroker is held.
void RemoveBrokerSocket(const std::string& home);

/// Listens on a numeric address. \param port 0 for any; receives the real one.
FileDescriptor ListenAsLink(const std::string& address, std::uint16_t& port, std::string& error);

/// Sets what every socket of a link needs, on either side.
void SetLinkOptions(int socket);

}  // namespace vyn::bm
