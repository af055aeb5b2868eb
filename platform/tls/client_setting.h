#pragma once

// How this process secures the connections that libraries make which it opens at run time. The set-up of the
// process fills this before it opens them; their functions have no argument for it. Threads: any.

#include "platform/tls/tls_context.h"

#include <functional>
#include <string>

namespace vyn::tls {

struct ClientSetting {
  /// Whether every such connection is under TLS. Off until it is set.
  bool enabled = false;
  /// The entries of TlsContext::ForClient.
  TlsContext::SecurityMap security;
  /// Receives the reason when a connection was refused; may be null. Called by any thread.
  std::function<void(const std::string& text)> report;
};

void SetClientSetting(ClientSetting setting);
ClientSetting GetClientSetting();

}  // namespace vyn::tls
