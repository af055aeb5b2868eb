#include "common/rpc/rpc_engine.h"
#include "support/bytes_message.h"
#include "support/child_process.h"
#include "support/raw_socket.h"
#include "support/temp_dir.h"

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <future>
#include <thread>

namespace vyn::common {
namespace {

using test::BytesMessage;
using test::ChildProcess;

constexpr unsigned short kEcho = 1;
constexpr unsigned short kNever = 2;
constexpr long kTime = 20000;

ChildProcess StartServer(int& port) {
  ChildProcess server({std::string(VYN_TEST_PROGRAM_DIR) + "/rpc_echo_server", std::to_string(port)});
  port = std::stoi(server.Receive());
  return server;
}

unsigned int Connect(RpcEngine& engine, int port) {
  std::string ip = "127.0.0.1";
  std::map<std::string, const std::string> security;
  return engine.Initialize(ip, static_cast<short>(port), kTime, false, false, security);
}

/// Returns: the echo, or the code of the failure.
std::string Echo(RpcEngine& engine, const std::string& text, long timeout = kTime) {
  const Ref<BytesMessage> response(new BytesMessage);
  const unsigned int result = engine.SyncRpcCall(kEcho, Ref<BaseMessage>(new BytesMessage(text)),
                                                 Ref<BaseMessage>(response), timeout);
  return result == 0 ? response->mText : std::to_string(result);
}

unsigned int CallNever(RpcEngine& engine, long timeout) {
  return engine.SyncRpcCall(kNever, Ref<BaseMessage>(new BytesMessage("x")), BaseMessage::gNullPtr, timeout);
}

TEST(RpcProcess, AServerThatIsKilledInMidCallAndComesBack) {
  int port = 0;
  ChildProcess server = StartServer(port);
  RpcEngine engine;
  ASSERT_EQ(Connect(engine, port), 0U);
  ASSERT_EQ(Echo(engine, "before"), "before");
  auto result = std::async(std::launch::async, [&] { return CallNever(engine, -1); });
  EXPECT_EQ(result.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  server.Kill();
  EXPECT_EQ(result.get(), 2020019U);  // at once, although the call has no limit
  EXPECT_EQ(Echo(engine, "nobody"), "2020019");
  server = StartServer(port);
  EXPECT_EQ(Echo(engine, "after"), "after");
  // Between two calls the change goes unnoticed.
  server.Kill();
  server = StartServer(port);
  EXPECT_EQ(Echo(engine, "again"), "again");
  EXPECT_EQ(server.Wait(), 0);
}

/// Whether every thread of the process has stopped; a signal takes its time to reach them all.
bool HasStopped(pid_t pid) {
  for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
    const std::string stat = test::ReadFile(task.path() / "stat");
    if (stat.substr(stat.rfind(')') + 2, 1) != "T") {
      return false;
    }
  }
  return true;
}

TEST(RpcProcess, AServerThatStandsStill) {
  int port = 0;
  ChildProcess server = StartServer(port);
  RpcEngine engine;
  ASSERT_EQ(Connect(engine, port), 0U);
  server.Signal(SIGSTOP);
  ASSERT_TRUE(test::Eventually([&] { return HasStopped(server.Pid()); }));
  EXPECT_EQ(Echo(engine, "one", 200), "2020021");
  EXPECT_EQ(Echo(engine, "two", 200), "2020021");  // over a connection that only the kernel has accepted
  server.Signal(SIGCONT);
  // The replies to the calls that timed out are on their way now.
  for (int i = 0; i < 20; ++i) {
    const std::string text = "three" + std::to_string(i);
    EXPECT_EQ(Echo(engine, text), text);
  }
}

}  // namespace
}  // namespace vyn::common
