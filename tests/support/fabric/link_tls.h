#pragma once

// Links under TLS for tests: certificates of a run, options of a node, settings of a client.

#include "platform/fabric/node/fabric_node.h"
#include "platform/tls/client_setting.h"
#include "support/net/certificates.h"
#include "support/test.h"

namespace vyn::test {

class LinkTls {
 public:
  /// Turns TLS on in a node's options. \param authority what it trusts the other nodes by.
  void Use(fabric::FabricNodeOptions& options, const std::string& certificate = "server",
           const std::string& authority = "ca.pem") const {
    options.linkTls = true;
    options.linkIdentity = {{"tls.cert.path", mFiles / (certificate + ".pem")},
                            {"tls.key.path", mFiles / (certificate + ".key")}};
    options.linkTrust = Trust(authority);
  }
  tls::TlsContext::SecurityMap Trust(const std::string& authority = "ca.pem") const {
    return {{"tls.ca.cert.path", mFiles / authority}};
  }

 private:
  Certificates mFiles;
};

}  // namespace vyn::test
