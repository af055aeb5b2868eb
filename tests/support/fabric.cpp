#include "support/fabric.h"

#include "support/test.h"

namespace vyn::test {

FabricPlace::FabricPlace(std::uint16_t nodeId) : mNodeId(nodeId) { ::chmod(Home().c_str(), 0755); }

FabricPlace::~FabricPlace() {
  {
    fabric::FabricNode node;
    std::string error;
    fabric::FabricNodeOptions options = Options();
    options.listenAddress.clear();
    EXPECT_TRUE(node.Start(options, error)) << error;
    if (error.empty()) {
      for (const fabric::NamespaceInfo& info : node.Namespaces()) {
        EXPECT_EQ(node.DestroyNamespace(info.name), 0);
      }
      EXPECT_EQ(node.Stats().used, 0U);
    }
  }
  EXPECT_EQ(NamesIn(Pool()), std::vector<std::string>());
}

fabric::FabricNodeOptions FabricPlace::Options() const {
  fabric::FabricNodeOptions options;
  options.home = Home();
  options.poolPath = Pool();
  options.capacity = 1ULL << 30U;
  options.nodeId = mNodeId;
  options.listenAddress = "127.0.0.1";
  options.sweepSeconds = 1;
  return options;
}

std::vector<std::string> NamesIn(const std::string& folder) {
  std::vector<std::string> names;
  std::error_code error;
  do {  // again when a folder in it went while it was looked at
    names.clear();
    for (std::filesystem::recursive_directory_iterator entry(folder, error), end; !error && entry != end;
         entry.increment(error)) {
      names.push_back(entry->path().lexically_relative(folder));
    }
  } while (error && std::filesystem::exists(folder));
  std::sort(names.begin(), names.end());
  return names;
}

FabricHost::FabricHost(const FabricPlace& place, const std::vector<std::string>& more,
                       const std::vector<std::string>& around) {
  std::vector<std::string> command = around;
  command.insert(command.end(),
                 {VYN_TEST_PROGRAM_DIR "/fabric_host", "--home", place.Home(), "--pool", place.Pool(),
                  "--node", std::to_string(place.NodeId()), "--listen", "127.0.0.1"});
  command.insert(command.end(), more.begin(), more.end());
  mProcess = ChildProcess(command);
  const std::string ready = mProcess.Receive();
  if (ready.rfind("ready ", 0) != 0) {
    throw std::runtime_error("no fabric node: " + ready);
  }
  mPort = static_cast<std::uint16_t>(std::stoul(ready.substr(6)));
}

void FabricHost::Knows(std::uint16_t nodeId, std::uint16_t port) {
  mProcess.Ask("peer " + std::to_string(nodeId) + " 127.0.0.1 " + std::to_string(port));
}

std::vector<std::uint64_t> FabricHost::Stats() {
  std::istringstream words(mProcess.Ask("stats"));
  std::vector<std::uint64_t> numbers;
  for (std::uint64_t number; words >> number;) {
    numbers.push_back(number);
  }
  return numbers;
}

FabricClient::FabricClient(const std::string& home)
    : ChildProcess({VYN_TEST_PROGRAM_DIR "/fabric_client", VYN_STAGE_DIR "/lib/mf/libbmclient.so"}) {
  EXPECT_EQ(Ask(home.empty() ? "init - 1" : "init " + home + " 0"), "0");
}

std::string FabricClient::Allocate(std::uint16_t node, std::uint64_t size) {
  const std::string answer = Ask("alloc " + std::to_string(node) + " app token " + std::to_string(size));
  EXPECT_EQ(answer.rfind("0 ", 0), 0U) << answer;
  return answer.substr(2);
}

std::string Tenant::Allocate(std::uint16_t node, std::uint64_t size) const {
  const Context context(*this);
  const int result = client.Allocate(&context, size, node);
  return result == 0 ? context.mId.c_str() : std::to_string(result);
}

int Tenant::Write(const std::string& id, std::uint64_t offset, const std::string& bytes) const {
  const Context context(*this, id);
  return client.Write(&context, offset, bytes.size(), bytes.data());
}

std::string Tenant::Read(const std::string& id, std::uint64_t offset, std::uint64_t length) const {
  const Context context(*this, id);
  std::string bytes(length, '\0');
  const int result = client.Read(&context, offset, length, bytes.data());
  return result == 0 ? bytes : std::to_string(result);
}

}  // namespace vyn::test
