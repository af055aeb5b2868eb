#include "platform/zk_helper/security.h"

#include "platform/zk_helper/client_lines.h"

#include <dlfcn.h>
#include <stdlib.h>
#include <strings.h>

#include <climits>
#include <memory>

extern "C" {

// The published client declares these only for the features that it was built with. Null where they are
// missing.
struct ZooSaslParameters {
  const char* service;
  const char* host;
  const char* mechanisms;
  const void* callbacks;
};
[[gnu::weak]] zhandle_t* zookeeper_init_ssl(const char* host, const char* certificates, watcher_fn watcher,
                                            int timeout, const clientid_t* id, void* context, int flags);
[[gnu::weak]] zhandle_t* zookeeper_init_sasl(const char* host, watcher_fn watcher, int timeout,
                                             const clientid_t* id, void* context, int flags,
                                             log_callback_fn log, ZooSaslParameters* parameters);
[[gnu::weak]] void* zoo_sasl_make_basic_callbacks(const char* user, const char* realm,
                                                  const char* passwordFile);

}  // extern "C"

namespace vyn::utilities::zookeeper {

namespace {

std::string Text(const char* text) { return text == nullptr ? "" : text; }

std::string RealPath(const std::string& path) {
  const std::unique_ptr<char, decltype(&free)> real(realpath(path.c_str(), nullptr), &free);
  return real == nullptr ? "" : real.get();
}

/// The file that the client was loaded from.
std::string ClientFile() {
  Dl_info info{};
  return dladdr(reinterpret_cast<void*>(&zookeeper_init2), &info) == 0 ? "" : RealPath(Text(info.dli_fname));
}

/// Whether the loaded client has `feature` and was loaded from `libraryDirectory`.
bool ClientHas(const char* feature, bool present, const char* libraryDirectory, std::string& cause) {
  const std::string file = ClientFile();
  const std::string directory = RealPath(Text(libraryDirectory));
  if (!present) {
    cause = "security is enabled, but the ZooKeeper client " + file + " has no " + feature +
            "; one that has it must stand in " + Text(libraryDirectory);
    return false;
  }
  if (directory.empty() || file.substr(0, file.rfind('/')) != directory) {
    cause = "security is enabled, but the ZooKeeper client was loaded from " + file + " and not from " +
            Text(libraryDirectory);
    return false;
  }
  return true;
}

}  // namespace

int ChooseClient(const std::string& url, int sessionTimeout, const VynZookeeperSecurity* security,
                 const VynZookeeperKeys& keys, const char* libraryDirectory, MakeClient& make,
                 std::string& cause) {
  if (security == nullptr || !security->enable) {
    make = [=](watcher_fn watcher, void* context) {
      return zookeeper_init2(url.c_str(), watcher, sessionTimeout, nullptr, context, ZOO_NO_LOG_CLIENTENV,
                             &OnClientLine);
    };
    return ZOK;
  }
  const std::string strategy = Text(security->strategy);
  if (strcasecmp(strategy.c_str(), "tls") == 0) {
    if (!ClientHas("TLS", zookeeper_init_ssl != nullptr, libraryDirectory, cause)) {
      return ZUNIMPLEMENTED;
    }
    make = [=, certificates = Text(security->certificates)](watcher_fn watcher, void* context) {
      CatchClientStream();  // this constructor alone takes no callback
      return zookeeper_init_ssl(url.c_str(), certificates.c_str(), watcher, sessionTimeout, nullptr, context,
                                ZOO_NO_LOG_CLIENTENV);
    };
    return ZOK;
  }
  if (strcasecmp(strategy.c_str(), "sasl") == 0) {
    const bool present = zookeeper_init_sasl != nullptr && zoo_sasl_make_basic_callbacks != nullptr;
    if (!ClientHas("SASL", present, libraryDirectory, cause)) {
      return ZUNIMPLEMENTED;
    }
    if (keys.isKeytabEncrypted) {
      cause = "the keytab " + Text(security->clientKeytab) + " is encrypted; only a plain keytab can be read";
      return ZUNIMPLEMENTED;
    }
    make = [=, service = Text(security->principleName), host = Text(security->principleHostname),
            user = Text(security->clientPrincipal), keytab = Text(security->clientKeytab),
            callbacks = std::shared_ptr<void>()](watcher_fn watcher, void* context) mutable {
      setenv("KRB5_CLIENT_KTNAME", keytab.c_str(), 1);
      // The client refers to the callbacks, and they to the user's name, for the life of its handle.
      callbacks.reset(zoo_sasl_make_basic_callbacks(user.c_str(), nullptr, nullptr), &free);
      ZooSaslParameters parameters{service.c_str(), host.c_str(), "GSSAPI", callbacks.get()};
      return zookeeper_init_sasl(url.c_str(), watcher, sessionTimeout, nullptr, context, ZOO_NO_LOG_CLIENTENV,
                                 &OnClientLine, &parameters);
    };
    return ZOK;
  }
  cause = "security is enabled with the unknown strategy \"" + strategy + "\"; it is \"tls\" or \"sasl\"";
  return ZBADARGUMENTS;
}

}  // namespace vyn::utilities::zookeeper
