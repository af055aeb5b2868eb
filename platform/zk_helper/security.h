#pragma once

// How a session is secured, and whether the loaded ZooKeeper client can do it. Builds of the client differ:
// each of TLS and SASL may be missing. The client is loaded with this library, before the security settings
// are known; the loader prefers a client in this library's folder. Threads: any.

#include "platform/zk_helper/session.h"
#include "platform/zk_helper/zk_helper.h"

#include <string>

namespace vyn::utilities::zookeeper {

/// Chooses how to make the client. `security` may be null, for a plain connection. Returns: ZOK with `make`,
/// which has copies of what it needs; otherwise a negative result, `cause` telling what is missing.
int ChooseClient(const std::string& url, int sessionTimeout, const VynZookeeperSecurity* security,
                 const VynZookeeperKeys& keys, const char* libraryDirectory, MakeClient& make,
                 std::string& cause);

}  // namespace vyn::utilities::zookeeper
