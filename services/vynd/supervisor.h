#pragma once

// Tells the service manager that started this process how it does, by the datagram protocol of systemd's
// sd_notify(3).

namespace vyn::services {

/// \param state like "READY=1". Without the environment variable NOTIFY_SOCKET, and when nobody listens
/// there, nothing happens: the daemon serves all the same.
void TellSupervisor(const char* state);

}  // namespace vyn::services
