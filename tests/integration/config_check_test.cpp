// For each file: `vynctl conf check`, `vynconf check` and the start of a real vynd refuse it for the same key, or
// all take it. What vynctl prints in JSON is JSON alone.

#include "support/net/certificates.h"
#include "support/process/command.h"
#include "support/process/vynd_process.h"

#include <nlohmann/json.hpp>

namespace vyn::test {
namespace {

/// Lines "key=value" that replace those of a good file, or "-key" to remove one, with "; " between them. CERTS stands
/// for a folder of certificates.
struct ChangedFile {
  const char* lines;
  const char* refused = "";  ///< the key without "vyn."; empty for a good file
};

constexpr ChangedFile kFiles[] = {
    {""},
    {"vyn.log.level=CRITICAL; -vyn.tessel.server.swap.path; vyn.tessel.server.swap.path=/nowhere"},
    {"vyn.ucx.tcp.keepintvl=inf; vyn.tessel.rpc.transport.tcp.port.range=40000-61000"},
    {"vyn.ucx.tcp.keepintvl=; vyn.tessel.rpc.transport.devices=nosuch0,lo; a line without a separator"},
    {"vyn.ucx.tcp.keepintvl=1500ms; vyn.tessel.rpc.transport.devices=all"},
    {"vyn.log.dir=${VYN_HOME}/logs/deeper; vyn.tessel.meta.node_lists=192.0.2.1,127.0.0.1"},
    {"vyn.tessel.rpc.enableAuthorization=true; vyn.tessel.rpc.author.file.path=x; "
     "vyn.tessel.rpc.author.type=x; "
     "vyn.tessel.rpc.author.file.encrypted=false"},
    {"vyn.tessel.rpc.enableTLS=true; vyn.tessel.rpc.tls.cert.path=CERTS/server.pem; "
     "vyn.tessel.rpc.tls.key.path=CERTS/server.key; vyn.tessel.rpc.tls.ca.cert.path=${VYN_HOME}/conf/ca.pem"},
    {"TLS; vyn.tessel.rpc.tls.key.encrypted=true; vyn.tessel.rpc.tls.key.path=CERTS/encrypted.key; "
     "vyn.tessel.rpc.tls.key.pass.path=CERTS/password.txt; vyn.tessel.rpc.tls.crl.path=CERTS/crl.pem"},
    {"vyn.log.level=LOUD", "log.level"},
    {"vyn.log.levle=INFO", "log.levle"},
    {"vyn.log.fileSize=4M", "log.fileSize"},
    {"vyn.log.fileSize=0", "log.fileSize"},
    {"vyn.log.rotation.file.num=-1", "log.rotation.file.num"},
    {"vyn.log.dir=/tmp", "log.dir"},
    {"vyn.log.dir=${VYN_HOME}2/logs", "log.dir"},
    {"vyn.log.dir=${VYN_HOME}/conf/vyn.conf", "log.dir"},
    {"-vyn.zookeeper.server.url", "zookeeper.server.url"},
    {"vyn.zookeeper.server.url=zk1", "zookeeper.server.url"},
    {"vyn.zookeeper.server.url=h:1/root,i:1/root", "zookeeper.server.url"},
    {"vyn.zookeeper.session.timeout=6000", "zookeeper.session.timeout"},
    {"vyn.ucx.tcp.keepintvl=60us", "ucx.tcp.keepintvl"},
    {"vyn.ucx.tcp.keepintvl=0", "ucx.tcp.keepintvl"},
    {"vyn.tessel.meta.node_lists=", "tessel.meta.node_lists"},
    {"vyn.tessel.meta.node_lists=127.0.0.1:3892", "tessel.meta.node_lists"},
    {"vyn.tessel.meta.node_lists=127.0.0.1, 127.0.0.2", "tessel.meta.node_lists"},
    {"-vyn.tessel.rpc.transport.protocol", "tessel.rpc.transport.protocol"},
    {"vyn.tessel.rpc.transport.protocol=ib", "tessel.rpc.transport.protocol"},
    {"vyn.tessel.rpc.transport.devices=nosuch0", "tessel.rpc.transport.devices"},
    {"vyn.tessel.rpc.transport.tcp.port.range=60500-60000", "tessel.rpc.transport.tcp.port.range"},
    {"vyn.tessel.rpc.shuffle_server.port=4294970187", "tessel.rpc.shuffle_server.port"},
    {"vyn.tessel.rpc.shuffle_meta.port=3899; vyn.tessel.rpc.manager.port=3899", "tessel.rpc.manager.port"},
    {"vyn.tessel.rpc.openssl.path=", "tessel.rpc.openssl.path"},
    {"vyn.tessel.rpc.openssl.path=libssl.so.99", "tessel.rpc.openssl.path"},
    {"vyn.tessel.rpc.crypto.path=libz.so.1", "tessel.rpc.crypto.path"},
    {"vyn.tessel.rpc.enableTLS=True", "tessel.rpc.enableTLS"},
    {"-vyn.tessel.rpc.enableTLS", "tessel.rpc.tls.cert.path"},
    {"TLS; vyn.tessel.rpc.tls.key.path=CERTS/no.key", "tessel.rpc.tls.key.path"},
    {"TLS; vyn.tessel.rpc.tls.key.path=CERTS/expired.key", "tessel.rpc.tls.key.path"},
    {"TLS; vyn.tessel.rpc.tls.key.path=CERTS/encrypted.key", "tessel.rpc.tls.key.path"},
    {"TLS; vyn.tessel.rpc.tls.cert.path=CERTS/server.key", "tessel.rpc.tls.cert.path"},
    {"TLS; vyn.tessel.rpc.tls.ca.cert.path=CERTS/password.txt", "tessel.rpc.tls.ca.cert.path"},
    {"TLS; vyn.tessel.rpc.tls.crl.path=CERTS/half_crl.pem", "tessel.rpc.tls.crl.path"},
    {"vyn.tessel.rpc.enableAuthentication=true", "tessel.rpc.enableAuthentication"},
    {"vyn.zookeeper.security.enable=true", "zookeeper.security.strategy"},
};

/// Returns: the file with the changes.
std::string Changed(std::string file, const std::string& lines) {
  const std::regex one("([^;]+?)(?:; |$)");
  for (std::sregex_iterator step(lines.begin(), lines.end(), one), end; step != end; ++step) {
    const std::string line = (*step)[1];
    const bool removed = line[0] == '-';
    const std::string key = line.substr(removed ? 1 : 0, line.find('=') - (removed ? 1 : 0));
    file = std::regex_replace(file, std::regex("(^|\n)" + (removed ? line.substr(1) : key) + "=[^\n]*"), "");
    file += removed ? "\n" : "\n" + line + "\n";
  }
  return file;
}

TEST(ConfigCheckTest, VynctlVynconfAndVyndAcceptTheSameFiles) {
  const Certificates certificates;
  const ZookeeperServer zookeeper;
  const ReservedPort metadataPort;
  VyndNode node(1, "127.0.0.1", zookeeper.NewRoot(), metadataPort.Number(), "127.0.0.1");
  const std::string path = node.Home() + "/conf/vyn.conf";
  const std::string good = ReadFile(path);
  std::filesystem::copy_file(certificates / "ca.pem", node.Home() + "/conf/ca.pem");
  for (const ChangedFile& row : kFiles) {
    SCOPED_TRACE(row.lines);
    std::string lines = std::regex_replace(std::string(row.lines), std::regex("^TLS"), kFiles[7].lines);
    lines = std::regex_replace(lines, std::regex("CERTS"), certificates / ".");
    std::ofstream(path) << Changed(good, lines);
    const std::string key = std::string("vyn.") + row.refused;
    const bool refused = key != "vyn.";
    const auto told = RunCommand("{ " VYN_STAGE_DIR "/bin/vynctl --home " + node.Home() +
                                 " --json conf check; } 2>/dev/null");
    const auto list = nlohmann::json::parse(told.output, nullptr, false)["complaints"];
    const auto names = [&](const auto& complaint) {
      return !complaint["warning"] && complaint["key"] == key;
    };
    EXPECT_TRUE(told.status == refused && std::any_of(list.begin(), list.end(), names) == refused)
        << told.output;
    const auto lined = RunCommand(VYN_STAGE_DIR "/bin/vynconf check " + path);
    EXPECT_EQ(lined.status, refused) << lined.output;
    if (refused) {
      const auto start = RunCommand("timeout 60 " + node.Command());
      EXPECT_EQ(start.status, 1);
      EXPECT_EQ(start.output, std::regex_replace(lined.output, std::regex("(.+\n)"), "vynd: $1"));
    } else {
      node.Start();
      node.Process().Signal(SIGTERM);
      EXPECT_EQ(node.Process().Wait(), 0);
    }
  }
}

}  // namespace
}  // namespace vyn::test
