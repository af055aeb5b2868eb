#pragma once

// The TLS setting for connections that are made by libraries which this process opens at run time. The
// functions of those libraries have no argument for it, so the process sets it before it opens them. Threads:
// any.

#include "platform/tls/tls_context.h"

#include <functional>
#include <string>

namespace vyn::tls {

struct ClientSetting {
  /// Whether every such connection uses TLS.
  bool enabled = false;
  /// The entries of TlsContext::ForClient.
  TlsContext::SecurityMap security;
  /// Called with the reason when a connection was refused, by any thread; may be null.
  std::function<void(const std::string& text)> report;
};

void SetClientSetting(ClientSetting setting);
ClientSetting GetClientSetting();

}  // namespace vyn::tls
