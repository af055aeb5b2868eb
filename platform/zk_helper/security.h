#pragma once

// How a session is secured, and whether the loaded ZooKeeper client can do it. Builds of the client differ:
// each of TLS and SASL is there or not. The client is loaded with this library, before anything is known of
// security; the loader prefers one that stands beside this library.

#include "platform/zk_helper/session.h"
#include "platform/zk_helper/zk_helper.h"

#include <string>

namespace vyn::utilities::zookeeper {

/// Chooses how to make the client. `security` may be null, for a plain connection. `logCallback` gets the
/// client's own error lines. Returns: ZOK with `make`, which refers to the arguments; otherwise a negative
/// result, `cause` telling what is missing.
int ChooseClient(const char* url, int sessionTimeout, const VynZookeeperSecurity* security,
                 const VynZookeeperKeys& keys, const char* libraryDirectory, log_callback_fn logCallback,
                 MakeClient& make, std::string& cause);

}  // namespace vyn::utilities::zookeeper
