#pragma once

// How this process secures the connections that libraries opened at run time make for it. The set-up of the
// process fills it before it opens them; they find it here, since the functions by which they are called have
// no argument for it. Threads: any.

#include "platform/tls/tls_context.h"

#include <functional>
#include <string>

namespace vyn::tls {

struct ClientSetting {
  /// Whether every such connection is under TLS. Off until it is told.
  bool enabled = false;
  /// The entries of TlsContext::ForClient.
  TlsContext::SecurityMap security;
  /// Gets the words of a connection that was refused; may be null. Called by any thread.
  std::function<void(const std::string& text)> report;
};

void SetClientSetting(ClientSetting setting);
ClientSetting GetClientSetting();

}  // namespace vyn::tls
