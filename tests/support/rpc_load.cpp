#include "support/rpc_load.h"

#include "common/rpc/rpc_engine.h"
#include "support/bytes_message.h"
#include "support/raw_socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <random>
#include <thread>
#include <vector>

namespace vyn::test {

namespace {

using common::BaseMessage;
using common::Ref;
using common::RpcEngine;

constexpr unsigned short kQuickEcho = 1;
constexpr unsigned short kEcho = 2;
constexpr unsigned short kLateEcho = 3;  // behind the time of some of its callers

long OpenDescriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                       std::filesystem::directory_iterator());
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

/// Calls with random sizes; leaves its connection now and then, also in the middle of a call.
void RunCaller(std::uint16_t port, unsigned int seed, const std::atomic<bool>& end,
               std::atomic<long>& answered) {
  std::mt19937 random(seed);
  std::string ip = "127.0.0.1";
  std::map<std::string, const std::string> security;
  Ref<RpcEngine> engine;
  while (!end) {
    if (engine == nullptr || random() % 200 == 0) {
      engine = new RpcEngine;
      ASSERT_EQ(
          engine->Initialize(ip, static_cast<short>(port), RawSocket::kPatience, false, false, security), 0U);
    }
    const std::size_t size = random() % 10 == 0 ? random() % 300000 : random() % 600 + 1;
    const Ref<BytesMessage> request(
        new BytesMessage(std::string(size + 1, static_cast<char>('a' + random() % 26))));
    const Ref<BytesMessage> response(new BytesMessage);
    const bool late = random() % 50 == 0;
    const unsigned int result = engine->SyncRpcCall(
        late ? kLateEcho : static_cast<unsigned short>(random() % 2 + 1), Ref<BaseMessage>(request),
        Ref<BaseMessage>(response), late ? 1 : RawSocket::kPatience);
    if (result == 0) {
      EXPECT_EQ(response->mText, request->mText);
      ++answered;
    } else {
      EXPECT_TRUE(late && result == 2020021) << result;
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

}  // namespace

void RunRpcLoad(std::chrono::milliseconds duration) {
  const long before = OpenDescriptors();
  std::atomic<long> answered{0};
  {
    rpc::Server server;
    server.Register(rpc::MessageId(kQuickEcho), Echo, rpc::HandlerKind::kQuick);
    server.Register(rpc::MessageId(kEcho), Echo);
    server.Register(rpc::MessageId(kLateEcho), Echo);
    ASSERT_TRUE(server.Start("127.0.0.1", 0));
    std::atomic<bool> end{false};
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < 6; ++i) {
      threads.emplace_back([&, i] { RunCaller(server.Port(), i, end, answered); });
    }
    for (unsigned int i = 0; i < 3; ++i) {
      threads.emplace_back([&, i] { RunBreaker(server.Port(), 100 + i, end); });
    }
    std::this_thread::sleep_for(duration);
    end = true;
    for (std::thread& thread : threads) {
      thread.join();
    }
    EXPECT_TRUE(Eventually([&] { return server.Connections() == 0; }));
  }
  EXPECT_GT(answered, 0);
  EXPECT_EQ(OpenDescriptors(), before);
}

}  // namespace vyn::test
