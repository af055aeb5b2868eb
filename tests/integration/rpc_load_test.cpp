// Load with random disconnects on the RPC layer: callers whose replies are checked, and peers that break off,
// for VYN_RPC_LOAD_SECONDS (2).

#include "common/rpc/rpc_engine.h"
#include "platform/openssl_dl/openssl_dl.h"
#include "support/bytes_message.h"
#include "support/certificates.h"
#include "support/raw_socket.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;
using common::RpcEngine;
using Security = std::map<std::string, const std::string>;

constexpr unsigned short kQuickEcho = 1;
constexpr unsigned short kEcho = 2;
constexpr unsigned short kLateEcho = 3;  // behind the time of some of its callers

/// Descriptors of the process, and bytes that wait to be read on its sockets.
std::pair<long, long> OpenDescriptors() {
  std::pair<long, long> sums;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    int unread = 0;
    std::error_code gone;
    if (std::filesystem::is_socket(entry.path(), gone)) {
      ioctl(std::stoi(entry.path().filename()), FIONREAD, &unread);
    }
    ++sums.first;
    sums.second += unread;
  }
  return sums;
}

void Echo(const std::shared_ptr<rpc::ServerContext>& context, const std::shared_ptr<rpc::Message>& message) {
  void* data = nullptr;
  unsigned int size = 0;
  if (message->Id().Value() == kLateEcho) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (RpcEngine::ParseRequest(message, data, size) == 0) {
    RpcEngine::SyncRpcReply(static_cast<unsigned short>(message->Id().Value()), context, 0, data, size, -1);
  }
}

/// Calls with random sizes; leaves its connection now and then, also in the middle of a call. \param trust
/// empty without TLS. \param engine keeps the last connection.
void RunCaller(std::uint16_t port, unsigned int seed, Security trust, const std::atomic<bool>& end,
               std::atomic<long>& answered, Ref<RpcEngine>& engine) {
  std::mt19937 random(seed);
  std::string ip = "127.0.0.1";
  for (long call = 0; !end; ++call) {
    if (engine == nullptr || random() % 200 == 0) {
      engine = new RpcEngine;
      ASSERT_EQ(engine->Initialize(ip, static_cast<short>(port), RawSocket::kPatience, !trust.empty(), false,
                                   trust),
                0U);
    }
    const std::size_t size = random() % 10 == 0 ? random() % 300000 : random() % 600 + 1;
    const Ref<BytesMessage> request(
        new BytesMessage(std::to_string(call) + std::string(size, static_cast<char>('a' + seed))));
    const Ref<BytesMessage> response(new BytesMessage);
    const bool late = random() % 50 == 0;
    const unsigned int result = engine->SyncRpcCall(
        late ? kLateEcho : static_cast<unsigned short>(random() % 2 + 1), Ref<BaseMessage>(request),
        Ref<BaseMessage>(response), late ? 1 : RawSocket::kPatience);
    EXPECT_TRUE(result == 0 || (late && result == 2020021)) << result;
    if (result == 0) {
      EXPECT_EQ(response->mText, request->mText);
      ++answered;
    }
  }
}

/// Connects, says something whole or half, and breaks off.
void RunBreaker(std::uint16_t port, unsigned int seed, const std::atomic<bool>& end) {
  std::mt19937 random(seed);
  while (!end) {
    RawSocket socket = RawSocket::Connect(port);
    std::string bytes = WireGreeting(1U << 30);
    for (unsigned int call = 0; call < random() % 20; ++call) {
      const std::string body = "\1" + std::string(1 + random() % 50000, '\0');
      bytes += WireHeader(static_cast<std::uint32_t>(body.size()), call, random() % 4) + body;
    }
    bytes.resize(random() % 2 == 0 ? bytes.size() : random() % (bytes.size() + 1));
    socket.Send(bytes);
    if (random() % 2 == 0) {
      socket.Readable(static_cast<int>(random() % 10));
    }
    if (random() % 2 == 0) {
      socket.Reset();
    }
  }
}

class RpcLoadTest : public testing::TestWithParam<bool> {};

TEST_P(RpcLoadTest, EveryAnswerIsTheCallersOwnAndNothingStaysBehind) {
  const char* wish = std::getenv("VYN_RPC_LOAD_SECONDS");
  const std::chrono::seconds duration(wish != nullptr ? std::atoi(wish) : 2);
  Security trust;
  rpc::ServerOptions options;
  std::optional<Certificates> files;
  if (GetParam()) {
    ASSERT_EQ(SetOpensslDLopenLibPath("libssl.so.3", "libcrypto.so.3"), 1) << OpensslDLGetLastMessage();
    files.emplace();
    trust.emplace("tls.ca.cert.path", *files / "ca.pem");
    options.mTls = true;
    options.mSecurity = {{"tls.cert.path", *files / "server.pem"}, {"tls.key.path", *files / "server.key"}};
  }
  const long before = OpenDescriptors().first;
  std::atomic<long> answered{0};
  {
    rpc::Server server(options);
    server.Register(rpc::MessageId(kQuickEcho), Echo, rpc::HandlerKind::kQuick);
    server.Register(rpc::MessageId(kEcho), Echo);
    server.Register(rpc::MessageId(kLateEcho), Echo);
    ASSERT_TRUE(server.Start("127.0.0.1", 0)) << rpc::Server::mLastErrorMessage;
    std::vector<Ref<RpcEngine>> engines(6);
    std::atomic<bool> end{false};
    {
      std::vector<std::jthread> threads;
      for (unsigned int i = 0; i < engines.size(); ++i) {
        threads.emplace_back([&, i] { RunCaller(server.Port(), i, trust, end, answered, engines[i]); });
      }
      for (unsigned int i = 0; i < 3; ++i) {
        threads.emplace_back([&, i] { RunBreaker(server.Port(), 100 + i, end); });
      }
      std::this_thread::sleep_for(duration);
      end = true;
    }
    EXPECT_TRUE(WaitUntil([] { return OpenDescriptors().second == 0; }));
    engines.clear();
    EXPECT_TRUE(WaitUntil([&] { return server.Connections() == 0; }));
  }
  std::cout << answered << " calls answered in " << duration.count() << " s\n";
  EXPECT_GT(answered, 0);
  EXPECT_EQ(OpenDescriptors().first, before);
}

INSTANTIATE_TEST_SUITE_P(All, RpcLoadTest, testing::Bool(),
                         [](const auto& row) { return row.param ? "Tls" : "Plain"; });

}  // namespace
}  // namespace vyn::test
