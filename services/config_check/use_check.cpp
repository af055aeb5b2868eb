#include "services/config_check/use_check.h"

#include "common/config/configuration.h"
#include "common/config/configuration_catalogue.h"
#include "common/util/text.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
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
  explicit UseCheck(common::Configuration& conf) : mConf(conf) {}

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
    if (!interval.empty() && !Matches(interval, "[0-9]+(\\.[0-9]+)?(us|ms|s|m|h)?")) {
      Refuse("vyn.ucx.tcp.keepintvl", "is no duration: write a number with its unit, such as 60s");
    }
    Addresses();
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
  }

  /// vynd writes its logs below its home only.
  void LogFolder(const std::string& home) {
    constexpr std::string_view kMarker = "${VYN_HOME}";
    std::string folder = Text("vyn.log.dir");
    if (const auto place = folder.find(kMarker); place != std::string::npos) {
      folder = home + folder.substr(place + kMarker.size());
    }
    std::error_code unknown;
    const std::string whole = std::filesystem::weakly_canonical(folder, unknown).string();
    if (!unknown && folder.find("${") == std::string::npos && whole.compare(0, home.size(), home) != 0) {
      Refuse("vyn.log.dir",
             "'" + folder + "' is not below " + home + ": choose a folder of the installation");
    }
  }

  std::vector<UseComplaint> Take() { return std::move(mComplaints); }

 private:
  static bool Matches(const std::string& text, const char* expression) {
    return std::regex_match(text, std::regex(expression));
  }
  std::string Text(const char* key) { return mConf.GetString(key, ""); }
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
    for (const std::string& entry : Entries(servers.substr(0, servers.find('/')))) {
      const auto colon = entry.rfind(':');
      long port = 0;
      if (colon == std::string::npos || colon == 0 || entry.find(' ') != std::string::npos ||
          !common::VynStol(entry.substr(colon + 1), port) || port < 1 || port > UINT16_MAX) {
        Refuse("vyn.zookeeper.server.url",
               "'" + entry + "' names no ZooKeeper server: write host:port, such as zk1:2181");
      }
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
        if (mConf.GetInt(*one, 0) == mConf.GetInt(*other, 0)) {
          Warn(*one, std::string("has the port of ") + *other + ": give each its own");
        }
      }
    }
    if (mConf.GetInt(kPorts[2], 0) > kHighestOutsidePort) {
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
      } else if (library.find('/') != std::string::npos) {
        File(key, false);
      }
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
  }

  /// Complains about a file that is named and cannot be read.
  void File(const char* key, bool warning) {
    const std::string path = Text(key);
    if (!path.empty() && access(path.c_str(), R_OK) != 0) {
      std::string text = path + " cannot be read: " + std::strerror(errno);
      if (path.find("${") != std::string::npos) {
        text += "; the ${...} markers are not replaced in this key, write the whole path";
      }
      mComplaints.push_back({key, text, warning});
    }
  }

  common::Configuration& mConf;
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

std::vector<UseComplaint> CheckUse(common::Configuration& conf, const ConfigFeatures& features,
                                   const std::string& home) {
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
