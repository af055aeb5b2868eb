#include "support/fabric.h"

#include "platform/fabric/protocol/sockets.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace vyn::test {

namespace {

std::string MakeFolder(const std::string& pattern) {
  std::string name = pattern;
  if (::mkdtemp(name.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed for " + name);
  }
  return name;
}

}  // namespace

FabricPlace::FabricPlace(std::uint16_t nodeId)
    : mHome(MakeFolder("/tmp/vyn-fabric-XXXXXX")),
      mPool(MakeFolder("/dev/shm/vyn-fabric-XXXXXX")),
      mNodeId(nodeId) {
  ::chmod(mHome.c_str(), 0755);
}

FabricPlace::~FabricPlace() {
  {
    bm::FabricNode node;
    std::string error;
    bm::FabricNodeOptions options = Options();
    options.listenAddress.clear();
    EXPECT_TRUE(node.Start(options, error)) << error;
    if (error.empty()) {
      for (const bm::NamespaceInfo& info : node.Namespaces()) {
        EXPECT_EQ(node.DestroyNamespace(info.name), 0);
      }
      EXPECT_EQ(node.Stats().used, 0U);
    }
  }
  EXPECT_EQ(NamesIn(mPool), std::vector<std::string>());
  std::error_code ignored;
  std::filesystem::remove_all(mPool, ignored);
  std::filesystem::remove_all(mHome, ignored);
}

bm::FabricNodeOptions FabricPlace::Options() const {
  bm::FabricNodeOptions options;
  options.home = mHome;
  options.poolPath = mPool;
  options.capacity = 1ULL << 30U;
  options.nodeId = mNodeId;
  options.listenAddress = "127.0.0.1";
  options.sweepSeconds = 1;
  return options;
}

std::vector<std::string> FabricPlace::HostCommand() const {
  return {VYN_TEST_PROGRAM_DIR "/fabric_host",
          "--home",
          mHome,
          "--pool",
          mPool,
          "--node",
          std::to_string(mNodeId),
          "--listen",
          "127.0.0.1"};
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
  std::vector<std::string> command = place.HostCommand();
  command.insert(command.begin(), around.begin(), around.end());
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

SlowLink::SlowLink(std::uint16_t port, std::uint64_t passed)
    : mTarget(port), mLeft(static_cast<std::int64_t>(passed)) {
  std::string error;
  mListener = bm::ListenAsLink("127.0.0.1", mPort, error);
  mThread = std::thread([this] { Run(); });
}

SlowLink::~SlowLink() {
  mStopping = true;
  mThread.join();
}

bool SlowLink::WaitUntilStill() {
  for (int tries = 0; tries < 3000 && !mStill; ++tries) {
    ::poll(nullptr, 0, 10);
  }
  return mStill;
}

void SlowLink::Run() {
  std::vector<std::thread> threads;
  while (!mStopping) {
    pollfd waited{mListener.Get(), POLLIN, 0};
    const int client = ::poll(&waited, 1, 20) > 0 ? ::accept(mListener.Get(), nullptr, nullptr) : -1;
    if (client >= 0) {
      threads.emplace_back([this, client] { Pass(client); });
    }
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

void SlowLink::Pass(int client) {
  const bm::FileDescriptor near(client);
  int error = 0;
  const auto far = bm::ConnectToLink("127.0.0.1", mTarget, bm::After(std::chrono::seconds(5)), error);
  std::vector<char> buffer(64U << 10U);
  while (far != nullptr && !mStopping) {
    const bool still = mLeft <= 0 && !mLetGo;
    mStill = mStill || still;
    if (mCut) {
      ::poll(nullptr, 0, 20);
      continue;
    }
    pollfd waited[2] = {{client, POLLIN, 0}, {far->Socket(), static_cast<short>(still ? 0 : POLLIN), 0}};
    ::poll(waited, 2, 20);
    for (int side = 0; side < 2; ++side) {
      if ((waited[side].revents & (POLLIN | POLLHUP)) == 0 || (side == 1 && still)) {
        continue;
      }
      const ssize_t count = ::recv(waited[side].fd, buffer.data(), buffer.size(), 0);
      if (count <= 0) {
        return;
      }
      mLeft -= side == 1 ? count : 0;
      iovec part{buffer.data(), static_cast<std::size_t>(count)};
      if (side == 0) {
        far->Send(&part, 1, bm::After(std::chrono::seconds(60)), -1);
      } else if (::send(client, buffer.data(), part.iov_len, MSG_NOSIGNAL) < 0) {
        return;
      }
    }
  }
}

}  // namespace vyn::test
