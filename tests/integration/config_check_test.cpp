// For each file of tests/data/config_files.txt: `vynctl conf check`, `vynconf check` and the start of a real vynd
// refuse it for the same key, or all take it. What vynctl prints in JSON is JSON alone.

#include "support/net/certificates.h"
#include "support/process/command.h"
#include "support/process/vynd_process.h"

#include <nlohmann/json.hpp>

namespace vyn::test {
namespace {

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
  std::ifstream files(VYN_SOURCE_DIR "/tests/data/config_files.txt");
  std::string tls;
  int count = 0;
  for (std::string key, lines; files >> key && std::getline(files, lines);) {
    if (key == "#") {
      continue;
    }
    SCOPED_TRACE(++count);
    const bool refused = key != "fine";
    key = "vyn." + key;
    tls = tls.empty() && lines.find("enableTLS=true") != std::string::npos ? lines : tls;
    lines = std::regex_replace(lines, std::regex("^ TLS"), tls);
    lines = std::regex_replace(lines, std::regex("CERTS"), certificates / ".");
    lines = std::regex_replace(lines, std::regex("^ "), "");
    std::ofstream(path) << Changed(good, lines);
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
