#pragma once

// The TLS settings of this process's links to fabric nodes. Only the thread that initialises the library
// calls this.

#include <string>

namespace vyn::tessel {

/// Stores the settings where libbmclient.so reads them (platform/tls/client_setting.h). Takes them from the
/// process's configuration or, without one, from conf/vyn.conf in `home`; an empty `home` means VYN_HOME. If
/// that file exists but cannot be loaded, no link can be made. If it does not exist, the settings stay as
/// they are. Call it before BM_Init.
void SecureLinks(const std::string& home);

}  // namespace vyn::tessel
