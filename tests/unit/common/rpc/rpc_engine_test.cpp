#include "common/rpc/rpc_engine.h"

#include "common/log/time_counter.h"
#include "common/util/clock.h"
#include "support/bytes_message.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/raw_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <mutex>
#include <thread>

namespace vyn::common {
namespace {

using test::BytesMessage;
using test::CapturedLog;
using test::RawListener;
using test::RawSocket;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr int kError = 4;
constexpr unsigned short kOpcode = 7;

const Ref<BaseMessage> kNothing;

Ref<BaseMessage> Bytes(const std::string& text) { return Ref<BaseMessage>(new BytesMessage(text)); }
const std::string& TextOf(const Ref<BaseMessage>& message) {
  return static_cast<BytesMessage*>(message.Get())->mText;
}

/// Connects an engine that the test owns.
unsigned int Initialize(RpcEngine& engine, std::uint16_t port, long timeout, bool authentication = false) {
  std::string ip = "127.0.0.1";
  std::map<std::string, const std::string> security{{"auth.type", "KERBEROS"}};
  return engine.Initialize(ip, static_cast<short>(port), timeout, false, authentication, security);
}

/// A server that answers every request with the bytes of the test, laid out by the raw form of the reply.
class Answering {
 public:
  using Handle =
      std::function<void(const std::shared_ptr<rpc::ServerContext>&, const std::shared_ptr<rpc::Message>&)>;

  explicit Answering(Handle handle) : mHandle(std::move(handle)) {
    for (std::uint32_t id = 0; id <= rpc::MessageId::kMask; ++id) {
      mServer.Register(rpc::MessageId(id), mHandle);
    }
    EXPECT_TRUE(mServer.Start("127.0.0.1", 0));
  }
  std::uint16_t Port() const { return mServer.Port(); }

 private:
  Handle mHandle;
  rpc::Server mServer;
};

/// The body of the transport's reply, word for word.
Answering::Handle Body(const std::string& body) {
  return [body](const auto& context, const auto& message) {
    rpc::Message reply(message->Id());
    reply.Bl().emplace_back(const_cast<char*>(body.data()), body.size(), nullptr);
    rpc::Server::Reply(context, &reply, nullptr);
  };
}

TEST(RpcEngine, FrameOfACall) {
  RawListener listener;
  std::string request;
  std::thread server([&] {
    RawSocket socket = listener.Accept();
    socket.Send(WireGreeting());
    socket.Receive(16);
    request = socket.Receive(24 + 2 + 3);
    socket.Send(WireHeader(8, 1, 1030 & 0x3ff) + Wire(0U) + "back");
    socket.Receive(1);
  });
  {
    RpcEngine engine;
    EXPECT_EQ(Initialize(engine, listener.Port(), 5000), 0U);
    const Ref<BaseMessage> response = Bytes("");
    EXPECT_EQ(engine.SyncRpcCall(1030, Bytes("abc"), response, 0), 0U);
    EXPECT_EQ(TextOf(response), "back");
  }
  server.join();
  // The operation code is cut to 10 bits; the body is the version and the payload.
  EXPECT_EQ(request, WireHeader(5, 1, 6) + Wire(std::uint16_t{1}) + "abc");
}

TEST(RpcEngine, ResultsOfACall) {
  const struct {
    const char* mName;
    std::string mBody;
    unsigned int mWithResponse;
    unsigned int mWithout;
    const char* mLine;
  } kCases[] = {
      {"even word and payload", Wire(0U) + "x", 0, 0, nullptr},
      {"word 2 counts as success", Wire(2U) + "x", 0, 0, nullptr},
      {"odd word", Wire(2060203U) + "x", 2060203, 2060203, "Error code is 2060203 opcode: 7"},
      {"payload that is refused", Wire(0U) + "refuse", 2020015, 0, nullptr},
      {"word alone", Wire(0U), 2020015, 0, "set_input_raw_data input size <= 0. size:0"},
      {"short word", "abc", 1, 1, "data size 3"},
      {"no buffer", "", 1, 1, "Sync rpc call return size != 1.  opcode: 7"},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.mName);
    Answering server(Body(one.mBody));
    RpcEngine engine;
    ASSERT_EQ(Initialize(engine, server.Port(), 20000), 0U);
    CapturedLog log;
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("ask"), Bytes(""), 0), one.mWithResponse);
    if (one.mLine != nullptr) {
      EXPECT_THAT(log.Texts(kError), ElementsAre(HasSubstr(one.mLine)));
    }
    log.Clear();
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("ask"), BaseMessage::gNullPtr, 0), one.mWithout);
    char data[] = "ask";
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, data, 3, 0), one.mWithout);
  }
}

TEST(RpcEngine, NothingToSend) {
  Answering server(Body(Wire(0U)));
  RpcEngine engine;
  CapturedLog log;
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 0), 2000057U);
  ASSERT_EQ(Initialize(engine, server.Port(), 20000), 0U);
  char data[] = "x";
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes(""), kNothing, 0), 2000013U);
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, nullptr, 1, 0), 2000013U);
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, data, 0, 0), 2000013U);
  EXPECT_THAT(
      log.Texts(kError),
      ElementsAre(
          "Unexpected nullptr value mClient",
          "Failed assert as request->SerializedData() != nullptr && request->SerializedDataSize() > 0",
          "Failed assert as data != nullptr && size > 0", "Failed assert as data != nullptr && size > 0"));
}

TEST(RpcEngine, StatusesOfTheTransport) {
  // What the server makes of the connection, and what the two forms of a call make of that.
  const struct {
    const char* mName;
    std::function<void(RawSocket&)> mServe;
    unsigned int mMessageForm;
    unsigned int mRawForm;
    const char* mStatus;
  } kCases[] = {
      {"lost", [](RawSocket&) {}, 2020019, 2020023, "-19: connection refused, reset or lost"},
      {"silent", [](RawSocket& socket) { socket.Receive(1); }, 2020021, 2020023, "-21: timed out"},
      {"busy", [](RawSocket& socket) { socket.Send(WireHeader(0, 1, kOpcode, -11)); }, 2020019, 2020019,
       "-11: the server has too many connections"},
      {"garbage", [](RawSocket& socket) { socket.Send(std::string(30, 'g')); }, 2020023, 2020023,
       "-8: the peer does not speak this protocol"},
  };
  for (const auto& one : kCases) {
    for (const bool raw : {false, true}) {
      SCOPED_TRACE(std::string(one.mName) + (raw ? " raw" : ""));
      RawListener listener;
      std::thread server([&] {
        RawSocket socket = listener.Accept();
        socket.Send(WireGreeting());
        socket.Receive(16 + 24 + 5);
        one.mServe(socket);
      });
      {
        RpcEngine engine;
        EXPECT_EQ(Initialize(engine, listener.Port(), 20000), 0U);
        CapturedLog log;
        char data[] = "ask";
        const unsigned int result = raw ? engine.SyncRpcCall(kOpcode, data, 3, 400)
                                        : engine.SyncRpcCall(kOpcode, Bytes("ask"), kNothing, 400);
        EXPECT_EQ(result, raw ? one.mRawForm : one.mMessageForm);
        EXPECT_THAT(log.Texts(kError),
                    ElementsAre(std::string("rpc error. opcode: 7, ") + one.mStatus + " timeout 400ms."));
      }
      server.join();
    }
  }
}

TEST(RpcEngine, EffectiveTimeOut) {
  Answering server(Body(Wire(0U)));
  RpcEngine engine;
  for (const long none : {0L, -1L, -77L}) {
    RpcEngine::mTimeout = 1;
    ASSERT_EQ(Initialize(engine, server.Port(), none), 0U);
    EXPECT_EQ(RpcEngine::mTimeout, -1);
  }
  // The last Initialize decides for all engines.
  RawListener silent;
  std::thread greeter([&] {
    RawSocket socket = silent.Accept();
    socket.Send(WireGreeting());
    socket.Receive(16);
    for (int i = 0; i < 3; ++i) {  // one connection a call, none is answered
      RawSocket next = silent.Accept();
      next.Send(WireGreeting());
      socket = std::move(next);
    }
    socket.Receive(24);
  });
  RpcEngine waiting;
  ASSERT_EQ(Initialize(waiting, silent.Port(), 20000), 0U);
  ASSERT_EQ(Initialize(engine, server.Port(), 150), 0U);
  CapturedLog log;
  EXPECT_EQ(waiting.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 0), 2020021U);
  EXPECT_EQ(waiting.SyncRpcCall(kOpcode, Bytes("x"), kNothing, -5), 2020021U);
  EXPECT_EQ(waiting.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 200), 2020021U);
  EXPECT_THAT(log.Texts(kError), ElementsAre(HasSubstr("timeout 150ms."), HasSubstr("timeout 150ms."),
                                             HasSubstr("timeout 200ms.")));
  // -1 stays no limit: the server goes away before any other end can come.
  std::thread call([&] {
    CapturedLog second;
    EXPECT_EQ(waiting.SyncRpcCall(kOpcode, Bytes("x"), kNothing, -1), 2020019U);
    EXPECT_THAT(second.Texts(kError), ElementsAre(HasSubstr("timeout -1ms.")));
  });
  greeter.join();
  silent.Close();
  call.join();
}

TEST(RpcEngine, InitializeThatFails) {
  RawListener gone;
  const std::uint16_t port = gone.Port();
  gone.Close();
  CapturedLog log;
  RpcEngine engine;
  EXPECT_EQ(Initialize(engine, port, 5000), 2020019U);
  EXPECT_THAT(log.Texts(kError), ElementsAre("Rpc client failed to connect to rpc server 127.0.0.1:" +
                                             std::to_string(port) + "Err:127.0.0.1:" + std::to_string(port) +
                                             ": Connection refused, try to reconnect"));
  EXPECT_EQ(engine.Reconnect(1000), 2020021U);

  RawListener silent;
  RpcEngine stuck;
  EXPECT_EQ(Initialize(stuck, silent.Port(), 150), 2020021U);

  log.Clear();
  RpcEngine refused;
  EXPECT_EQ(Initialize(refused, port, 5000, true), 1U);
  EXPECT_THAT(log.Texts(kError),
              ElementsAre("Failed to init Rpc client.authentication is on, but no mechanism is "
                          "present for auth.type \"KERBEROS\""));
  EXPECT_EQ(refused.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 1000), 2020023U);

  // A server that has come up meanwhile is found by the next call, and by Reconnect.
  Answering server(Body(Wire(0U)));
  RpcEngine late;
  ASSERT_EQ(Initialize(late, server.Port(), 5000), 0U);
  EXPECT_EQ(late.Reconnect(5000), 0U);
  EXPECT_EQ(late.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 0), 0U);
}

TEST(RpcEngine, ParseRequest) {
  const struct {
    const char* mName;
    std::string mBytes;
    unsigned int mResult;
    const char* mLine;
  } kCases[] = {
      {"this version", Wire(std::uint16_t{1}) + "abc", 0, nullptr},
      {"lower version", Wire(std::uint16_t{0}) + "abc", 0, nullptr},
      {"higher version", Wire(std::uint16_t{2}) + "abc", 2020009,
       "Current low rpc version v1 can't support for high version v2"},
      {"one byte", "a", 2000005, "Parse request error, input is null."},
      {"no buffer", "", 2000005, "Parse request error, input is null."},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.mName);
    auto message = std::make_shared<rpc::Message>(rpc::MessageId(kOpcode));
    if (!one.mBytes.empty()) {
      message->Bl().emplace_back(const_cast<char*>(one.mBytes.data()), one.mBytes.size(), nullptr);
    }
    CapturedLog log;
    void* data = nullptr;
    unsigned int size = 0;
    EXPECT_EQ(RpcEngine::ParseRequest(message, data, size), one.mResult);
    if (one.mLine == nullptr) {
      EXPECT_EQ(std::string(static_cast<char*>(data), size), "abc");
    } else {
      EXPECT_TRUE(log.Has(kError, one.mLine));
    }
  }
  auto two = std::make_shared<rpc::Message>(rpc::MessageId(kOpcode));
  char bytes[] = "\1\0abc";
  two->Bl().emplace_back(bytes, 5, nullptr);
  two->Bl().emplace_back(bytes, 5, nullptr);
  void* data = nullptr;
  unsigned int size = 0;
  EXPECT_EQ(RpcEngine::ParseRequest(two, data, size), 2000005U);
}

TEST(RpcEngine, TheServerHalfRefusesByItself) {
  // Requests of raw bytes: the reply is the code alone, and the handler hears nothing.
  CapturedLog log;
  Answering server([](const auto& context, const auto& message) {
    const Ref<BaseMessage> request = Bytes("");
    const auto opcode = static_cast<unsigned short>(message->Id().Value());
    if (!Failed(RpcEngine::ParseRequest(opcode, context, message, request))) {
      RpcEngine::SyncRpcReply(opcode, context, 4, request, 0);
    }
  });
  RawSocket socket = RawSocket::Connect(server.Port());
  socket.Send(WireGreeting());
  socket.Receive(16);
  const struct {
    std::string mRequest;
    std::string mReply;
    const char* mLine;
  } kCases[] = {
      {Wire(std::uint16_t{1}) + "fine", Wire(4U) + "fine", nullptr},
      {Wire(std::uint16_t{2}) + "new", Wire(2020009U),
       "Failed to parse request. opcode: 7, error code: 2020009"},
      {"", Wire(2000005U), "Failed to parse request. opcode: 7, error code: 2000005"},
      {Wire(std::uint16_t{1}), Wire(2020015U),
       "Failed to deserialize request. opcode: 7, error code: 2020015"},
      {Wire(std::uint16_t{1}) + "refuse", Wire(2020015U),
       "Failed to deserialize request. opcode: 7, error code: 2020015"},
  };
  std::uint64_t call = 0;
  for (const auto& one : kCases) {
    ++call;
    socket.Send(WireHeader(static_cast<std::uint32_t>(one.mRequest.size()), call, kOpcode) + one.mRequest);
    EXPECT_EQ(socket.Receive(24 + one.mReply.size()),
              WireHeader(static_cast<std::uint32_t>(one.mReply.size()), call, kOpcode) + one.mReply);
    if (one.mLine != nullptr) {
      EXPECT_TRUE(log.Has(kError, one.mLine));
    }
    log.Clear();
  }
}

TEST(RpcEngine, RepliesThatCannotBeSent) {
  CapturedLog log;
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, nullptr, 0, 0), 2000057U);
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, kNothing, 0), 2000057U);
  EXPECT_THAT(log.Texts(kError),
              ElementsAre("Unexpected nullptr value context", "Unexpected nullptr value context"));
  log.Clear();

  std::mutex mutex;
  std::vector<std::shared_ptr<rpc::ServerContext>> held;
  {
    Answering server([&](const auto& context, const auto&) {
      std::lock_guard lock(mutex);
      held.push_back(context);
    });
    RawSocket socket = RawSocket::Connect(server.Port());
    socket.Send(WireGreeting() + WireHeader(0, 1, kOpcode) + WireHeader(0, 2, kOpcode));
    ASSERT_TRUE(test::Eventually([&] {
      std::lock_guard lock(mutex);
      return held.size() == 2;
    }));
    RpcEngine::mTimeout = 4321;
    EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[0], 0, nullptr, 0, 0), 0U);
    EXPECT_EQ(held[0]->mTimeout, 4321);
    EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[0], 0, nullptr, 0, 99), 1U);
    EXPECT_EQ(held[0]->mTimeout, 99);
    EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[1], 0, nullptr, 0, -1), 0U);
    EXPECT_EQ(held[1]->mTimeout, -1);
  }
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[1], 0, Bytes("x"), 0), 1U);
  EXPECT_THAT(log.Texts(kError), ElementsAre("rpc error. opcode: 7, -15: invalid argument",
                                             "Rpc reply error. opcode: 7, -15: invalid argument"));
}

/// Takes 300 ns to be put together and 500 ns to be taken apart.
class SlowMessage : public BytesMessage {
 public:
  using BytesMessage::BytesMessage;
  std::uint32_t Serialize() override {
    SleepFor(std::chrono::nanoseconds(300));
    return BytesMessage::Serialize();
  }
  std::uint32_t Deserialize() override {
    SleepFor(std::chrono::nanoseconds(500));
    return BytesMessage::Deserialize();
  }
};

TEST(RpcEngine, TimesOfTheThreePhases) {
  test::FakeClock clock;  // it moves in those messages alone
  const Ref<BaseMessage> slow(new SlowMessage("x"));
  Answering server(Body(Wire(0U) + "x"));
  RpcEngine engine;
  ASSERT_EQ(Initialize(engine, server.Port(), 20000), 0U);
  const auto call = [&](int level, const Ref<BaseMessage>& response) {
    RpcEngine::mTimeSer = RpcEngine::mTimeCall = RpcEngine::mTimeDes = 77;
    TimeCounter::SetTimeCountLevel(level);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, slow, response, 0), 0U);
    return std::vector<int>{RpcEngine::mTimeSer, RpcEngine::mTimeCall, RpcEngine::mTimeDes};
  };
  EXPECT_THAT(call(1, kNothing), ElementsAre(0, 0, 77));  // the third phase did not run
  EXPECT_THAT(call(1, slow), ElementsAre(0, 0, 0));
  EXPECT_THAT(call(2, slow), ElementsAre(300, 0, 500));
  RpcEngine::mTimeCall = 77;
  std::string raw = "raw";
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, raw.data(), 3, 20000), 0U);
  EXPECT_EQ(RpcEngine::mTimeCall, 77);  // the raw form measures nothing
  std::thread([] { EXPECT_EQ(RpcEngine::mTimeCall, 0); }).join();
  TimeCounter::SetTimeCountLevel(0);
}

}  // namespace
}  // namespace vyn::common
