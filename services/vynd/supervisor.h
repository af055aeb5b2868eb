#pragma once

// Reports the state of this process to the service manager that started it, by the datagram protocol of
// systemd's sd_notify(3).

namespace vyn::services {

/// Sends one message and ignores failures. Does nothing without the environment variable NOTIFY_SOCKET.
/// \param state such as "READY=1".
void NotifySupervisor(const char* state);

}  // namespace vyn::services
