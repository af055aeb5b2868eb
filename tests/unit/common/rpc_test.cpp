// What the RPC engine and its pool add to the transport.

#include "common/log/time_counter.h"
#include "common/rpc/rpc_engine_base.h"
#include "support/client/scripted_service.h"
#include "support/net/peers.h"
#include "support/rpc/bytes_message.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::common {
namespace {

using test::BytesMessage;
using test::RawListener;
using test::RawSocket;
using test::ScriptedService;
using test::Wire;
using test::WireFrame;
using test::WireGreeting;
using testing::ElementsAre;

constexpr unsigned short kOpcode = 1030;
constexpr unsigned int kId = 6;  // its low ten bits
const Ref<BaseMessage> kNothing;

Ref<BaseMessage> Bytes(const std::string& text) { return Ref<BaseMessage>(new BytesMessage(text)); }

unsigned int Initialize(RpcEngine& engine, std::uint16_t port, long timeout, bool authentication = false) {
  std::string ip = "127.0.0.1";
  std::map<std::string, const std::string> security{{"auth.type", "KERBEROS"}};
  return engine.Initialize(ip, static_cast<short>(port), timeout, false, authentication, security);
}

/// A port on which nobody listens.
std::uint16_t ClosedPort() { return RawListener().Port(); }

TEST(RpcEngineTest, EveryReplyHasItsCallResult) {
  // Status and body of the frame that is the answer; the results with a response, without one, and of bytes.
  using Results = std::vector<unsigned int>;
  using Row = std::tuple<std::int32_t, std::string, Results>;
  for (const auto& row :
       {Row{0, Wire(0U) + "x", {0, 0, 0}}, Row{0, Wire(2U) + "x", {0, 0, 0}},
        Row{0, Wire(2060203U) + "x", {2060203, 2060203, 2060203}},
        Row{0, Wire(0U) + "refuse", {2020015, 0, 0}}, Row{0, Wire(0U), {2020015, 0, 0}},
        Row{0, "abc", {1, 1, 1}}, Row{0, "", {1, 1, 1}}, Row{-19, "", {2020019, 2020019, 2020023}},
        Row{-21, "", {2020021, 2020021, 2020023}}, Row{-11, "", {2020019, 2020019, 2020019}},
        Row{-8, "", {2020023, 2020023, 2020023}}}) {
    const std::int32_t status = std::get<0>(row);
    const std::string& body = std::get<1>(row);
    test::ScriptedServer server(3, [&](RawSocket& socket, int) {
      socket.Send(WireGreeting());
      EXPECT_EQ(socket.Receive(16 + 29).substr(16), WireFrame(kId, Wire(std::uint16_t{1}) + "ask"));
      socket.Send(WireFrame(kId, body, 1, status));
      socket.Receive(1);
    });
    const Ref<BytesMessage> response(new BytesMessage);
    Results results;
    for (const int way : {0, 1, 2}) {
      RpcEngine engine;
      EXPECT_EQ(Initialize(engine, server.Port(), RawSocket::kPatience), 0U);
      results.push_back(way == 2 ? engine.SyncRpcCall(kOpcode, std::string("ask").data(), 3, 0)
                                 : engine.SyncRpcCall(kOpcode, Bytes("ask"),
                                                      way == 0 ? Ref<BaseMessage>(response) : kNothing, 0));
    }
    EXPECT_EQ(results, std::get<2>(row)) << status << body;
    EXPECT_TRUE(results[0] != 0 || response->mText == "x");
  }
}

TEST(RpcEngineTest, AnEngineConnectsLaterAfterAFailedConnect) {
  RpcEngine engine;
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 1000), 2000057U) << "before Initialize";
  EXPECT_EQ(Initialize(engine, ClosedPort(), 5000), 2020019U);
  EXPECT_EQ(engine.Reconnect(1000), 2020021U);
  EXPECT_EQ(Initialize(engine, RawListener().Port(), 5000, true), 1U) << "there is no such mechanism";
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 1000), 2020023U);
  const ScriptedService server;
  EXPECT_EQ(Initialize(engine, server.Port(), 5000), 0U);
  EXPECT_EQ(engine.Reconnect(5000), 0U);
  EXPECT_EQ(engine.SyncRpcCall(1, Bytes("x"), kNothing, 0), 0U);
  EXPECT_EQ(engine.SyncRpcCall(1, Bytes(""), kNothing, 0), 2000013U) << "nothing to send";
  EXPECT_EQ(engine.SyncRpcCall(1, kNothing, kNothing, 0), 2000057U);
  EXPECT_EQ(engine.SyncRpcCall(1, nullptr, 1, 0), 2000013U);
  const RawListener silent;
  EXPECT_EQ(Initialize(engine, silent.Port(), 150), 2020021U);
}

/// A server that hands every request of kOpcode to `handle`, and a raw connection to it.
struct Serving {
  explicit Serving(const rpc::RequestHandler& handle) {
    server.Register(rpc::MessageId(kOpcode), handle);
    EXPECT_TRUE(server.Start("127.0.0.1", 0));
    socket = RawSocket::Connect(server.Port());
    socket.Send(WireGreeting());
    socket.Receive(16);
  }
  rpc::Server server;
  RawSocket socket;
};

TEST(RpcEngineTest, ParseRequestRefusesInvalidRequestsBeforeTheHandler) {
  // The reply to a refused request is the code alone, and the handler hears nothing.
  Serving serving([](const auto& context, const auto& message) {
    const Ref<BaseMessage> request = Bytes("");
    if (!Failed(RpcEngine::ParseRequest(kOpcode, context, message, request))) {
      RpcEngine::SyncRpcReply(kOpcode, context, 4, request, 0);
    }
  });
  using Row = std::pair<std::string, std::string>;
  const std::string version = Wire(std::uint16_t{1});
  for (const auto& [request, reply] :
       {Row{version + "fine", Wire(4U) + "fine"}, Row{Wire(std::uint16_t{0}) + "old", Wire(4U) + "old"},
        Row{Wire(std::uint16_t{2}) + "new", Wire(2020009U)}, Row{"", Wire(2000005U)},
        Row{"a", Wire(2000005U)}, Row{version, Wire(2020015U)}, Row{version + "refuse", Wire(2020015U)}}) {
    serving.socket.Send(WireFrame(kId, request));
    EXPECT_EQ(serving.socket.Receive(24 + reply.size()), WireFrame(kId, reply));
  }
}

TEST(RpcEngineTest, ReplyFunctionsReportFailuresAndACallKeepsItsTimeout) {
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, nullptr, 0, 0), 2000057U);
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, kNothing, 0), 2000057U);
  std::promise<std::shared_ptr<rpc::ServerContext>> promise;
  Serving serving([&](const auto& context, const auto&) { promise.set_value(context); });
  serving.socket.Send(WireFrame(kId, ""));
  const auto context = promise.get_future().get();
  unsigned int result = 0;  // only the first reply is sent
  // The time of a call is its own or that of the last Initialize.
  using Row = std::tuple<long, long, long>;
  for (const auto& [initialized, given, used] :
       {Row{0, 0, -1}, Row{-77, 0, -1}, Row{15000, 0, 15000}, Row{15000, -5, 15000}, Row{15000, 20, 20},
        Row{15000, -1, -1}}) {
    RpcEngine engine;
    EXPECT_EQ(Initialize(engine, serving.server.Port(), initialized), 0U);
    EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, context, 0, nullptr, 0, given), result);
    EXPECT_EQ(context->mTimeout, used);
    result = 1;
  }
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, context, 0, Bytes("x"), 0), 1U);
}

class Pool : public RPCEnginePool {
 public:
  Pool(std::uint16_t port, std::uint16_t size)
      : RPCEnginePool("127.0.0.1", port, 20000, true, size, 5, {}, false, false) {}

  unsigned int NewRPCEngine(Ref<RpcEngine>& engine) override {
    EXPECT_TRUE(mMutex.try_lock());  // never called with it held
    mMutex.unlock();
    ++mMade;
    return ConnectEngine(engine, {}, mTimeout);
  }
  unsigned int SetTimeout() override { return 0; }
  unsigned int Fill() { return FillPool(); }

  int mMade = 0;
};

struct Client : RPCEngineBase {
  explicit Client(std::uint16_t port) : mPool(new Pool(port, 2)) { mEnginePool = mPool.Get(); }
  unsigned int Call(long timeout = 0) { return SendCall(kId, Bytes("x"), BaseMessage::gNullPtr, timeout); }
  Ref<Pool> mPool;
};

TEST(RpcEnginePoolTest, ThePoolFollowsAPeerToItsNewAddress) {
  const ScriptedService oldServer;
  const ScriptedService newServer;
  Client client(oldServer.Port());
  EXPECT_EQ(client.Call(), 0U);
  Ref<RpcEngine> inUse;
  ASSERT_EQ(client.mPool->GetRpcEngine(inUse), 0U);
  EXPECT_EQ(client.Call(), 0U);  // over a second engine
  client.mPool->mPort = newServer.Port();
  EXPECT_EQ(client.Call(), 0U);
  client.mPool->ReturnRpcEngine(inUse);
  EXPECT_EQ(client.mPool->mEngines.size(), 1U) << "the engine of the old peer is let go";
  inUse = nullptr;
  EXPECT_TRUE(test::WaitUntil([&] { return oldServer.Connections() == 0; }));
  EXPECT_EQ(client.Call(), 0U);
  EXPECT_EQ((std::vector{oldServer.Requests().size(), newServer.Requests().size()}),
            (std::vector<std::size_t>{2, 2}));

  client.mPool->mPort = 40000;  // above the signed range
  const Ref<RpcEngine> high(new RpcEngine);
  high->mIp = "127.0.0.1";
  high->mPort = static_cast<short>(40000);
  client.mPool->ReturnRpcEngine(high);
  EXPECT_THAT(client.mPool->mEngines, ElementsAre(high)) << "those of the old peer go";
}

TEST(RpcEnginePoolTest, CallsToAFrozenPeerEndWhenThePoolGetsANewAddress) {
  ScriptedService silent;
  silent.Answer(kId, {0, "", ScriptedService::Reply::kSilence});
  const RawListener frozen;  // the kernel connects, and nobody sends a greeting
  const ScriptedService next;
  const std::map<std::uint16_t, std::function<bool()>> isAsked{
      {silent.Port(), [&] { return !silent.Requests().empty(); }},
      {frozen.Port(), [&] { return frozen.HasCaller(5); }}};
  for (const auto& [port, asked] : isAsked) {
    Client client(port);
    auto waiting = std::async(std::launch::async, [&] { return client.Call(); });
    ASSERT_TRUE(test::WaitUntil(asked));
    {
      sync::MutexLock lock(client.mPool->mMutex);
      client.mPool->mPort = next.Port();
    }
    client.mPool->AbandonOldPeers();
    EXPECT_EQ(waiting.get(), 2020019U);
    EXPECT_EQ(client.Call(), 0U);
    EXPECT_EQ(client.mPool->mEngines.size(), 1U);
  }
}

TEST(RpcEnginePoolTest, ThePoolTakesItsSecuritySettingsFromTheConfiguration) {
  const ScriptedService server;
  const auto conf = Configuration::gInstance = new Configuration;
  conf->Set("vyn.tessel.rpc.enableTLS", false);
  conf->Set("vyn.tessel.rpc.enableAuthentication", false);
  for (const std::string side : {"client", "server"}) {
    conf->Set("vyn.tessel.rpc.auth.kerb." + side + ".keytab", side);
    Pool made(server.Port(), 1);
    made.mTlsEnable = made.mAuthEnable = true;
    made.mClientIdentity = side == "client";
    EXPECT_EQ(made.Initialize(), 0U);
    EXPECT_FALSE(made.mTlsEnable || made.mAuthEnable);
    EXPECT_EQ(made.mSecurityConf.at("auth.kerb.keytab"), side);
  }
}

TEST(RpcEnginePoolTest, AFailedCallReturnsItsEngineToThePool) {
  ScriptedService server;
  Client client(server.Port());
  TimeCounter::SetTimeCountLevel(1);
  RpcEngine::mTimeCall = 0;
  for (const auto& [reply, status] : std::vector<std::pair<ScriptedService::Reply, unsigned int>>{
           {{2100041, ""}, 2100041}, {{0, "", ScriptedService::Reply::kSilence}, 2020021}, {{0, ""}, 0}}) {
    server.Answer(kId, reply);
    EXPECT_EQ(client.Call(status == 2020021 ? 100 : 0), status);
    EXPECT_EQ(client.mPool->mEngines.size(), 1U);
  }
  EXPECT_EQ(client.mPool->mMade, 1);
  EXPECT_EQ(RpcEngine::mTimeCall, 0) << "phases are measured above level 1 only";
  TimeCounter::SetTimeCountLevel(2);
  EXPECT_EQ(client.Call(), 0U);
  EXPECT_GT(RpcEngine::mTimeCall, 0);

  Client nobody(ClosedPort());
  EXPECT_EQ(nobody.mPool->Fill(), 2020019U);
  EXPECT_EQ(nobody.Call(), 2020019U);
  EXPECT_EQ(nobody.mPool->mEngines.size(), 0U);
  EXPECT_EQ(RPCEngineBase().SendCall(kId, kNothing, kNothing, 0), 2000057U);
}

}  // namespace
}  // namespace vyn::common
