// Load with random disconnects on the RPC layer: callers whose replies are checked, and peers that break off,
// for VYN_RPC_LOAD_SECONDS (2). The server stops while peers still connect.

#include "common/rpc/rpc_engine.h"
#include "support/net/certificates.h"
#include "support/random_steps.h"
#include "support/rpc/bytes_message.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {
namespace {

using common::BaseMessage;
using common::Ref;
using common::RpcEngine;

constexpr unsigned short kQuickEcho = 1;
constexpr unsigned short kEcho = 2;
constexpr unsigned short kLateEcho = 3;  // behind the time of some of its callers

std::ptrdiff_t OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
}

/// The reply to a version and a text is the result 0 and the text.
void EchoResult(const std::shared_ptr<rpc::ServerContext>& context,
                const std::shared_ptr<rpc::Message>& message) {
  if (message->Id().Value() == kLateEcho) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  Reply(context, message->Id().Value(), Wire(0U) + TextOf(*message).erase(0, 2));
}

/// Calls with random sizes; leaves its connection now and then, also in the middle of a call. \param trust
/// empty without TLS. \param engine keeps the last connection.
void RunCaller(std::uint16_t port, unsigned int seed, std::map<std::string, const std::string> trust,
               const std::atomic<bool>& end, std::atomic<long>& answered, Ref<RpcEngine>& engine) {
  RandomSteps random(seed);
  std::string ip = "127.0.0.1";
  while (!end) {
    if (engine == nullptr || random.OneIn(200)) {
      engine = new RpcEngine;
      ASSERT_EQ(engine->Initialize(ip, static_cast<short>(port), RawSocket::kPatience, !trust.empty(), false,
                                   trust),
                0U);
    }
    std::string text(random.OneIn(10) ? random.Number(300000) : random.Number(600), 'x');
    text += std::to_string(seed) + " " + std::to_string(answered);
    const Ref<BytesMessage> response(new BytesMessage);
    const bool late = random.OneIn(50);
    random.Note(text.size(), "bytes", late ? "late" : "");
    const unsigned int result =
        engine->SyncRpcCall(late ? kLateEcho : static_cast<unsigned short>(random.Number(2) + 1),
                            Ref<BaseMessage>(new BytesMessage(text)), Ref<BaseMessage>(response),
                            late ? 1 : RawSocket::kPatience);
    EXPECT_TRUE(result == 0 || (late && result == 2020021)) << result << random.Story();
    if (result == 0) {
      EXPECT_EQ(response->mText, text) << random.Story();
      ++answered;
    }
  }
}

/// Connects, says something whole or half, and breaks off, until nobody listens any more.
void RunBreaker(std::uint16_t port, unsigned int seed) {
  RandomSteps random(seed);
  try {
    for (;;) {
      RawSocket socket = RawSocket::Connect(port);
      std::string bytes = WireGreeting(1U << 30);
      for (std::uint32_t call = random.Number(20); call > 0; --call) {
        bytes += WireFrame(random.Number(4), "\1" + std::string(1 + random.Number(50000), '\0'), call);
      }
      bytes.resize(random.OneIn(2) ? bytes.size() : random.Number(static_cast<std::uint32_t>(bytes.size())));
      socket.Send(bytes);
      if (random.OneIn(2)) {
        socket.Readable(static_cast<int>(random.Number(10)));
      }
      if (random.OneIn(2)) {
        socket.Reset();
      }
    }
  } catch (const std::runtime_error&) {
  }
}

class RpcLoadTest : public testing::TestWithParam<bool> {};

TEST_P(RpcLoadTest, EveryCallerGetsItsOwnReplyAndNoDescriptorLeaks) {
  const char* wish = std::getenv("VYN_RPC_LOAD_SECONDS");
  const std::chrono::seconds duration(wish != nullptr ? std::atoi(wish) : 2);
  std::map<std::string, const std::string> trust;
  rpc::ServerOptions options;
  const Certificates files;
  const unsigned int seed = Seeds(1)[0];
  if (GetParam()) {
    trust.emplace("tls.ca.cert.path", files / "ca.pem");
    options.mTls = true;
    options.mSecurity = {{"tls.cert.path", files / "server.pem"}, {"tls.key.path", files / "server.key"}};
  }
  const std::ptrdiff_t before = OpenDescriptors();
  std::atomic<long> answered{0};
  {
    rpc::Server server(options);
    server.Register(rpc::MessageId(kQuickEcho), EchoResult, rpc::HandlerKind::kQuick);
    server.Register(rpc::MessageId(kEcho), EchoResult);
    server.Register(rpc::MessageId(kLateEcho), EchoResult);
    ASSERT_TRUE(server.Start("127.0.0.1", 0)) << rpc::Server::mLastErrorMessage;
    std::vector<Ref<RpcEngine>> engines(6);
    std::atomic<bool> end{false};
    std::vector<std::jthread> breakers;
    for (unsigned int i = 0; i < 3; ++i) {
      breakers.emplace_back(RunBreaker, server.Port(), seed + 100 + i);
    }
    {
      std::vector<std::jthread> callers;
      for (unsigned int i = 0; i < engines.size(); ++i) {
        callers.emplace_back(
            [&, i] { RunCaller(server.Port(), seed + i, trust, end, answered, engines[i]); });
      }
      std::this_thread::sleep_for(duration);
      end = true;
    }
    engines.clear();
    server.Stop();
    EXPECT_EQ(server.Connections(), 0U);
  }
  std::cout << answered << " calls answered in " << duration.count() << " s\n";
  EXPECT_GT(answered, 0);
  EXPECT_EQ(OpenDescriptors(), before);
}

INSTANTIATE_TEST_SUITE_P(All, RpcLoadTest, testing::Bool(),
                         [](const auto& row) { return row.param ? "Tls" : "Plain"; });

}  // namespace
}  // namespace vyn::test
