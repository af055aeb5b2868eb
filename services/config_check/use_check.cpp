#include "services/config_check/use_check.h"

#include "common/api/base_api_util.h"
#include "common/config/configuration.h"
#include "common/config/configuration_catalogue.h"
#include "common/util/text.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "platform/tls/tls_context.h"

#include <arpa/inet.h>
#include <dlfcn.h>
#include <net/if.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <regex>
#include <string_view>

namespace vyn::services {

namespace {

/// Processes outside the fabric parse the port of "ip:port" as a signed 16-bit number.
constexpr int kHighestOutsidePort = 32767;

constexpr const char* kTlsFiles[] = {"vyn.tessel.rpc.tls.cert.path", "vyn.tessel.rpc.tls.key.path",
                                     "vyn.tessel.rpc.tls.ca.cert.path", "vyn.tessel.rpc.tls.crl.path"};
constexpr const char* kTlsFilesOfEngine[] = {"vyn.tessel.rpc.tls.sdk.ca.cert.path",
                                             "vyn.tessel.rpc.tls.sdk.crl.path"};
constexpr const char* kKeyEncrypted = "vyn.tessel.rpc.tls.key.encrypted";
constexpr const char* kPassword = "vyn.tessel.rpc.tls.key.pass.path";
constexpr const char* kLibraries[] = {"vyn.tessel.rpc.openssl.path", "vyn.tessel.rpc.crypto.path"};
constexpr const char* kRanges[] = {"vyn.tessel.rpc.transport.tcp.port.range",
                                   "vyn.tessel.rpc.shuffle_meta.worker.thread.cpuset",
                                   "vyn.tessel.rpc.shuffle_meta.eventMgr.thread.cpuset"};
constexpr const char* kPorts[] = {"vyn.tessel.rpc.shuffle_server.port", "vyn.tessel.rpc.shuffle_meta.port",
                                  "vyn.tessel.rpc.manager.port"};

std::vector<std::string> Entries(const std::string& list) {
  std::vector<std::string> entries;
  common::SplitStr(list, ",", entries);
  return entries;
}

class UseCheck {
 public:
  explicit UseCheck(common::Ref<common::Configuration> conf) : mConf(std::move(conf)) {}

  void Run(const ConfigFeatures& features) {
    if (!Matches(Text("vyn.log.level"), "TRACE|DEBUG|INFO|WARN|ERROR|CRITICAL")) {
      Refuse("vyn.log.level",
             "is no log level: write TRACE, DEBUG, INFO, WARN, ERROR or CRITICAL; a load takes it as INFO");
    }
    if (Text("vyn.tessel.rpc.transport.protocol") != "tcp") {
      Refuse("vyn.tessel.rpc.transport.protocol",
             "this release has only the transport tcp: set it to tcp; without a line it is rc");
    }
    const std::string interval = Text("vyn.ucx.tcp.keepintvl");
    if (!interval.empty() && !Matches(interval, "inf|0*[1-9][0-9]{0,8}(ms|s|m)?")) {
      Refuse("vyn.ucx.tcp.keepintvl",
             "is no duration: write a whole number above 0 with ms, s or m, such as 60s");
    }
    for (const char* key : {"vyn.log.fileSize", "vyn.log.rotation.file.num"}) {
      if (mConf->GetInt(key, 1) < 1) {
        Refuse(key, "must be at least 1");
      }
    }
    Addresses();
    Interfaces();
    Ports();
    Libraries();
    if (features.authentication) {
      Refuse("vyn.tessel.rpc.enableAuthentication",
             "this release has no mechanism of authentication, every connection would be refused: set it to "
             "false");
    }
    if (features.tls) {
      TlsFiles();
    }
    if (features.zookeeperSecurity) {
      ZooKeeperSecurity();
    }
  }

  /// vynd writes its logs below its home only.
  void LogFolder(const std::string& home) {
    std::string folder = Text("vyn.log.dir");
    for (const std::string_view marker : {"${VYN_HOME}", "$VYN_HOME"}) {
      if (const auto place = folder.find(marker); place != std::string::npos) {
        folder = home + folder.substr(place + marker.size());
      }
    }
    std::error_code unknown;
    const std::string whole = std::filesystem::weakly_canonical(folder, unknown).string();
    if (unknown || folder.find("${") != std::string::npos) {
      return;
    }
    if (whole.compare(0, home.size() + 1, home + "/") != 0) {
      Refuse("vyn.log.dir",
             "'" + folder + "' is not below " + home + ": choose a folder of the installation");
    } else if (std::filesystem::exists(whole, unknown) && !std::filesystem::is_directory(whole, unknown)) {
      Refuse("vyn.log.dir", "'" + folder + "' is no folder: remove it or choose another place");
    }
  }

  std::vector<UseComplaint> Take() { return std::move(mComplaints); }

 private:
  static bool Matches(const std::string& text, const char* expression) {
    return std::regex_match(text, std::regex(expression));
  }
  std::string Text(const char* key) { return mConf->GetString(key, ""); }
  void Refuse(const char* key, const std::string& text) { mComplaints.push_back({key, text}); }
  void Warn(const char* key, const std::string& text) { mComplaints.push_back({key, text, true}); }

  void Addresses() {
    for (const std::string& entry : Entries(Text("vyn.tessel.meta.node_lists"))) {
      in_addr address{};
      if (inet_pton(AF_INET, entry.c_str(), &address) != 1) {
        Refuse("vyn.tessel.meta.node_lists",
               "'" + entry +
                   "' is no IPv4 address, so it matches no node: write the addresses of the nodes as "
                   "--address of vynd has them, without ports and blanks");
      }
    }
    const std::string servers = Text("vyn.zookeeper.server.url");
    const auto root = servers.find('/');
    if (root != std::string::npos && !Matches(servers.substr(root), "(/[^/,:]+)+")) {
      Refuse("vyn.zookeeper.server.url",
             "'" + servers.substr(root) + "' is no path in ZooKeeper: write one path behind the last server");
    }
    for (const std::string& entry : Entries(servers.substr(0, root))) {
      const auto colon = entry.rfind(':');
      long port = 0;
      if (colon == std::string::npos || colon == 0 || entry.find(' ') != std::string::npos ||
          !common::VynStol(entry.substr(colon + 1), port) || port < 1 || port > UINT16_MAX) {
        Refuse("vyn.zookeeper.server.url",
               "'" + entry + "' names no ZooKeeper server: write host:port, such as zk1:2181");
      }
    }
  }

  /// A connection to another machine needs one of the interfaces.
  void Interfaces() {
    const std::string list = Text("vyn.tessel.rpc.transport.devices");
    const auto names = Entries(list);
    const bool any = std::any_of(names.begin(), names.end(), [](const std::string& name) {
      return if_nametoindex(name.substr(0, name.find(':')).c_str()) != 0;
    });
    if (!list.empty() && list != "all" && !any) {
      Refuse("vyn.tessel.rpc.transport.devices",
             "'" + list + "' names no interface of this machine: leave it empty to use any");
    }
  }

  void Ports() {
    for (const char* key : kRanges) {
      const std::string range = Text(key);
      const auto dash = range.find('-');
      long low = 0;
      long high = 0;
      if (!range.empty() && (dash == std::string::npos || !common::VynStol(range.substr(0, dash), low) ||
                             !common::VynStol(range.substr(dash + 1), high) || low > high)) {
        Refuse(key, "'" + range + "' is no range: write the lower number, a dash and the higher number");
      }
    }
    for (const char* const* one = std::begin(kPorts); one != std::end(kPorts); ++one) {
      for (const char* const* other = std::begin(kPorts); other != one; ++other) {
        if (mConf->GetInt(*one, 0) == mConf->GetInt(*other, 0)) {
          Refuse(*one, std::string("has the port of ") + *other + ": give each its own");
        }
      }
    }
    if (mConf->GetInt(kPorts[2], 0) > kHighestOutsidePort) {
      Warn(kPorts[2], "drivers outside the fabric reach ports up to " + std::to_string(kHighestOutsidePort) +
                          " only: choose a lower one");
    }
  }

  void Libraries() {
    for (const char* key : kLibraries) {
      const std::string library = Text(key);
      if (library.empty()) {
        Refuse(key,
               "is needed also without TLS: name the library of OpenSSL 3, such as libssl.so.3 or "
               "libcrypto.so.3");
      }
    }
    const std::string ssl = Text(kLibraries[0]);
    const std::string crypto = Text(kLibraries[1]);
    const int answer =
        ssl.empty() || crypto.empty() ? OPENSSL_DL_OK : SetOpensslDLopenLibPath(ssl.c_str(), crypto.c_str());
    // A running process keeps the libraries that it has.
    if (answer != OPENSSL_DL_OK && answer != OPENSSL_DL_OTHER_PATHS) {
      const std::string text = OpensslDLGetLastMessage();
      const auto named = [&](const std::string& path) { return std::min(text.find(path), text.size()); };
      Refuse(kLibraries[named(crypto) < named(ssl) ? 1 : 0], text);
    }
  }

  void TlsFiles() {
    for (const char* key : kTlsFiles) {
      File(key, false);
    }
    if (Text(kKeyEncrypted) == "true") {
      File(kPassword, false);
    }
    if (Text(kTlsFilesOfEngine[0]).empty()) {
      Warn(kTlsFilesOfEngine[0], "is empty: an engine process with this file trusts no node");
    }
    for (const char* key : kTlsFilesOfEngine) {
      File(key, true);
    }
    // What vynd does with them at its start. A file that was refused above is not told again.
    const auto open = [&](auto&& make, auto&& read, bool warning) {
      std::string error;
      std::map<std::string, const std::string> settings;
      read(settings);
      if (openssl_dl::Get() != nullptr && make(settings, error) == nullptr) {
        TlsError(error, warning);
      }
    };
    using Util = common::BaseApiUtil;
    using tls::TlsContext;
    open(
        TlsContext::ForServer, [&](auto& into) { Util::GetPlxTlsConf4Server(mConf, into); }, false);
    open(
        TlsContext::ForClient, [&](auto& into) { Util::GetPlxTlsConf4Client(mConf, into, false); }, false);
    if (!Text(kTlsFilesOfEngine[0]).empty()) {
      open(
          TlsContext::ForClient, [&](auto& into) { Util::GetPlxTlsConf4Client(mConf, into, true); }, true);
    }
  }

  /// Complains with an error of TlsContext about the key that it names as "tls....path".
  void TlsError(const std::string& error, bool engine) {
    for (const char* name : {"ca.cert.path", "crl.path", "key.pass.path", "key.path", "cert.path"}) {
      if (error.find(std::string("tls.") + name) != std::string::npos) {
        const std::string key = std::string("vyn.tessel.rpc.tls.") + (engine ? "sdk." : "") + name;
        const bool known = std::any_of(mComplaints.begin(), mComplaints.end(),
                                       [&](const UseComplaint& complaint) { return complaint.key == key; });
        if (!known) {
          mComplaints.push_back({key, error, engine});
        }
        return;
      }
    }
  }

  /// Debian's ZooKeeper client can do neither TLS nor SASL.
  void ZooKeeperSecurity() {
    constexpr const char* kStrategy = "vyn.zookeeper.security.strategy";
    const std::string strategy = Text(kStrategy);
    const bool tls = strcasecmp(strategy.c_str(), "tls") == 0;
    if (!tls && strcasecmp(strategy.c_str(), "sasl") != 0) {
      Refuse(kStrategy, "is no strategy: write tls or sasl");
    } else if (dlsym(RTLD_DEFAULT, tls ? "zookeeper_init_ssl" : "zookeeper_init_sasl") == nullptr) {
      Refuse(kStrategy, "the installed ZooKeeper client library cannot do " + strategy +
                            ": install one that can, or set vyn.zookeeper.security.enable to false");
    } else if (!tls && mConf->GetBool("vyn.zookeeper.security.isKeytabEncrypt", true)) {
      Refuse("vyn.zookeeper.security.isKeytabEncrypt", "only a plain keytab can be read: set it to false");
    }
  }

  /// Complains about a file that is named and cannot be read.
  void File(const char* key, bool warning) {
    const std::string path = Text(key);
    if (!path.empty() && access(path.c_str(), R_OK) != 0) {
      std::string text = path + " cannot be read: " + std::strerror(errno);
      mComplaints.push_back({key, text, warning});
    } else if (!path.empty() && path.front() != '/') {
      Warn(key, "'" + path + "' counts from the folder in which a program is started: write the whole path");
    }
  }

  common::Ref<common::Configuration> mConf;
  std::vector<UseComplaint> mComplaints;
};

/// Returns: how many characters have to be added, left out or replaced to make one text of the other.
std::size_t Distance(const std::string& one, const std::string& other) {
  std::vector<std::size_t> row(other.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < one.size(); ++i) {
    std::size_t diagonal = row[0]++;
    for (std::size_t k = 0; k < other.size(); ++k) {
      const std::size_t replaced = diagonal + (one[i] == other[k] ? 0 : 1);
      diagonal = row[k + 1];
      row[k + 1] = std::min({replaced, row[k] + 1, diagonal + 1});
    }
  }
  return row.back();
}

}  // namespace

std::vector<UseComplaint> CheckUse(const common::Ref<common::Configuration>& conf,
                                   const ConfigFeatures& features, const std::string& home) {
  UseCheck check(conf);
  check.Run(features);
  if (!home.empty()) {
    check.LogFolder(home);
  }
  return check.Take();
}

bool IsNeedless(common::Configuration& conf, const std::string& key) {
  const bool plainKey = conf.GetString(kKeyEncrypted, "") != "true";
  return key.find(".plx.ksf.") != std::string::npos || key == kKeyEncrypted ||
         (key == kPassword && plainKey) || key == kTlsFilesOfEngine[0];
}

std::string MostLike(const std::string& key) {
  constexpr std::size_t kLongest = 200;
  std::string best;
  std::size_t least = std::min<std::size_t>(key.size() / 4, 8) + 1;
  if (key.size() > kLongest) {
    return best;
  }
  for (const common::CatalogueGroup* group : common::catalogue::kGroups) {
    for (const common::CatalogueKey& row : group->keys) {
      if (const std::size_t distance = Distance(key, row.key); distance < least) {
        least = distance;
        best = row.key;
      }
    }
  }
  return best;
}

}  // namespace vyn::services
