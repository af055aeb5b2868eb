// Calls to a server that is another process, which is killed, comes back, and stands still.

#include "common/rpc/rpc_engine.h"
#include "support/bytes_message.h"
#include "support/child_process.h"
#include "support/test.h"

namespace vyn::common {
namespace {

constexpr unsigned short kEcho = 1;
constexpr unsigned short kNever = 2;
constexpr unsigned int kLost = 2020019;
constexpr unsigned int kTooLate = 2020021;

class RpcProcessTest : public testing::Test {
 protected:
  void Start() {
    mServer = test::ChildProcess({VYN_TEST_PROGRAM_DIR "/rpc_echo_server", std::to_string(mPort)});
    mPort = std::stoi(mServer.Receive());
  }
  void SetUp() override {
    Start();
    std::string ip = "127.0.0.1";
    std::map<std::string, const std::string> security;
    ASSERT_EQ(mEngine.Initialize(ip, static_cast<short>(mPort), 20000, false, false, security), 0U);
  }
  unsigned int Call(unsigned short operation, const std::string& text, long timeout) {
    const Ref<test::BytesMessage> response(new test::BytesMessage);
    const unsigned int result = mEngine.SyncRpcCall(operation, Ref<BaseMessage>(new test::BytesMessage(text)),
                                                    Ref<BaseMessage>(response), timeout);
    EXPECT_TRUE(result != 0 || response->mText == text) << response->mText;
    return result;
  }

  int mPort = 0;
  test::ChildProcess mServer;
  RpcEngine mEngine;
};

TEST_F(RpcProcessTest, AServerThatIsKilledInMidCallAndComesBack) {
  ASSERT_EQ(Call(kEcho, "before", 20000), 0U);
  auto result = std::async(std::launch::async, [&] { return Call(kNever, "x", -1); });
  EXPECT_EQ(result.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
  mServer.Kill();
  EXPECT_EQ(result.get(), kLost);  // at once, although the call has no limit
  EXPECT_EQ(Call(kEcho, "nobody", 20000), kLost);
  Start();
  EXPECT_EQ(Call(kEcho, "after", 20000), 0U);
  // Between two calls the change goes unnoticed.
  mServer.Kill();
  Start();
  EXPECT_EQ(Call(kEcho, "again", 20000), 0U);
}

TEST_F(RpcProcessTest, AServerThatStandsStill) {
  mServer.Signal(SIGSTOP);
  EXPECT_EQ(Call(kEcho, "one", 200), kTooLate);
  EXPECT_EQ(Call(kEcho, "two", 200), kTooLate);  // over a connection that only the kernel has accepted
  mServer.Signal(SIGCONT);
  // The replies to the calls that timed out are on their way now.
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(Call(kEcho, "three" + std::to_string(i), 20000), 0U);
  }
}

}  // namespace
}  // namespace vyn::common
