// What the RPC engine, its pool and the transport's environment add to the transport.

#include "common/log/time_counter.h"
#include "common/rpc/rpc_engine_base.h"
#include "common/util/clock.h"
#include "support/bytes_message.h"
#include "support/captured_log.h"
#include "support/fake_clock.h"
#include "support/raw_socket.h"
#include "support/scripted_service.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::common {
namespace {

using test::BytesMessage;
using test::RawListener;
using test::RawSocket;
using test::ScriptedService;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;
using testing::ElementsAre;

constexpr unsigned short kOpcode = 7;
const Ref<BaseMessage> kNothing;
char gAsk[] = "ask";

Ref<BaseMessage> Bytes(const std::string& text) { return Ref<BaseMessage>(new BytesMessage(text)); }

/// Connects an engine that the test owns.
unsigned int Initialize(RpcEngine& engine, std::uint16_t port, long timeout, bool authentication = false) {
  std::string ip = "127.0.0.1";
  std::map<std::string, const std::string> security{{"auth.type", "KERBEROS"}};
  return engine.Initialize(ip, static_cast<short>(port), timeout, false, authentication, security);
}

using Handle =
    std::function<void(const std::shared_ptr<rpc::ServerContext>&, const std::shared_ptr<rpc::Message>&)>;

/// A server that hands every request to `handle`.
struct Answering {
  explicit Answering(const Handle& handle) {
    for (std::uint32_t id = 0; id <= rpc::MessageId::kMask; ++id) {
      server.Register(rpc::MessageId(id), handle);
    }
    EXPECT_TRUE(server.Start("127.0.0.1", 0));
  }
  rpc::Server server;
};

/// Answers with these bytes.
Handle Body(const std::string& body) {
  return [body](const auto& context, const auto& message) {
    rpc::Message reply(message->Id());
    reply.Bl().emplace_back(const_cast<char*>(body.data()), body.size(), nullptr);
    rpc::Server::Reply(context, &reply, nullptr);
  };
}

/// A port on which nobody listens.
std::uint16_t ClosedPort() { return RawListener().Port(); }

/// What the client sends in a call, to which a frame of this status and body is the answer.
std::string Exchange(std::int32_t status, const std::string& body,
                     const std::function<void(RpcEngine&)>& call, unsigned int opcode = kOpcode) {
  RawListener listener;
  std::string request;
  std::thread server([&] {
    RawSocket socket = listener.Accept();
    socket.Send(WireGreeting());
    socket.Receive(16);
    request = socket.Receive(24 + 2 + 3);
    socket.Send(WireHeader(static_cast<std::uint32_t>(body.size()), 1, opcode & 0x3ff, status) + body);
    socket.Receive(1);
  });
  {
    RpcEngine engine;
    EXPECT_EQ(Initialize(engine, listener.Port(), 20000), 0U);
    call(engine);
  }
  server.join();
  return request;
}

TEST(RpcEngineTest, ARequestIsVersionAndPayloadUnderTheLowTenBitsOfItsCode) {
  const Ref<BaseMessage> response = Bytes("");
  const auto call = [&](RpcEngine& engine) {
    EXPECT_EQ(engine.SyncRpcCall(1030, Bytes("abc"), response, 0), 0U);
  };
  EXPECT_EQ(Exchange(0, Wire(0U) + "back", call, 1030), WireHeader(5, 1, 6) + Wire(std::uint16_t{1}) + "abc");
  EXPECT_EQ(static_cast<BytesMessage*>(response.Get())->mText, "back");
}

TEST(RpcEngineTest, StatusesOfTheTransport) {
  for (const auto& [status, message, raw] :
       std::vector<std::tuple<std::int32_t, unsigned int, unsigned int>>{{-19, 2020019, 2020023},
                                                                         {-21, 2020021, 2020023},
                                                                         {-11, 2020019, 2020019},
                                                                         {-8, 2020023, 2020023}}) {
    SCOPED_TRACE(status);
    const test::CapturedLog log;
    Exchange(status, "", [expected = message](RpcEngine& engine) {
      EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("ask"), kNothing, 0), expected);
    });
    Exchange(status, "", [expected = raw](RpcEngine& engine) {
      EXPECT_EQ(engine.SyncRpcCall(kOpcode, gAsk, 3, 0), expected);
    });
    EXPECT_EQ(log.Texts(4).size(), 2U);
  }
}

TEST(RpcEngineTest, ResultsOfACall) {
  struct Row {
    std::string body;
    unsigned int withResponse;
    unsigned int without;
  };
  for (const Row& row : std::vector<Row>{{Wire(0U) + "x", 0, 0},
                                         {Wire(2U) + "x", 0, 0},  // an even word is a success
                                         {Wire(2060203U) + "x", 2060203, 2060203},
                                         {Wire(0U) + "refuse", 2020015, 0},
                                         {Wire(0U), 2020015, 0},
                                         {"abc", 1, 1},
                                         {"", 1, 1}}) {
    SCOPED_TRACE(row.body.size());
    Answering answering(Body(row.body));
    RpcEngine engine;
    ASSERT_EQ(Initialize(engine, answering.server.Port(), 20000), 0U);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("ask"), Bytes(""), 0), row.withResponse);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("ask"), BaseMessage::gNullPtr, 0), row.without);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, gAsk, 3, 0), row.without);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes(""), kNothing, 0), 2000013U) << "nothing to send";
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, kNothing, kNothing, 0), 2000057U);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, nullptr, 1, 0), 2000013U);
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, gAsk, 0, 0), 2000013U);
  }
}

TEST(RpcEngineTest, TheTimeOfACallIsItsOwnOrThatOfTheLastInitialize) {
  Answering refusing([](const auto&, const auto&) {});  // the caller hears at once that there is no answer
  RpcEngine engine;
  for (const long none : {0L, -1L, -77L}) {
    RpcEngine::mTimeout = 1;
    ASSERT_EQ(Initialize(engine, refusing.server.Port(), none), 0U);
    EXPECT_EQ(RpcEngine::mTimeout, -1);
  }
  RpcEngine other;
  ASSERT_EQ(Initialize(other, refusing.server.Port(), 15000), 0U);
  for (const auto& [given, used] :
       std::vector<std::pair<long, long>>{{0, 15000}, {-5, 15000}, {20, 20}, {-1, -1}}) {
    test::CapturedLog log;
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, given), 2020023U);
    EXPECT_THAT(log.Texts(4), ElementsAre(testing::EndsWith(" " + std::to_string(used) + "ms.")));
  }
  RawListener silent;
  EXPECT_EQ(Initialize(engine, silent.Port(), 150), 2020021U);
}

TEST(RpcEngineTest, AnEngineThatCouldNotConnectConnectsLater) {
  RpcEngine engine;
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 1000), 2000057U) << "before Initialize";
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, gAsk, 3, 1000), 2000057U);
  EXPECT_EQ(Initialize(engine, ClosedPort(), 5000), 2020019U);
  EXPECT_EQ(engine.Reconnect(1000), 2020021U);
  RpcEngine refused;
  EXPECT_EQ(Initialize(refused, ClosedPort(), 5000, true), 1U) << "there is no such mechanism";
  EXPECT_EQ(refused.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 1000), 2020023U);
  Answering answering(Body(Wire(0U)));
  ASSERT_EQ(Initialize(engine, answering.server.Port(), 5000), 0U);
  EXPECT_EQ(engine.Reconnect(5000), 0U);
  EXPECT_EQ(engine.SyncRpcCall(kOpcode, Bytes("x"), kNothing, 0), 0U);
}

TEST(RpcEngineTest, TheServerHalfRefusesByItself) {
  // The reply to a refused request is the code alone, and the handler hears nothing.
  Answering answering([](const auto& context, const auto& message) {
    const Ref<BaseMessage> request = Bytes("");
    if (!Failed(RpcEngine::ParseRequest(kOpcode, context, message, request))) {
      RpcEngine::SyncRpcReply(kOpcode, context, 4, request, 0);
    }
  });
  RawSocket socket = RawSocket::Connect(answering.server.Port());
  socket.Send(WireGreeting());
  socket.Receive(16);
  std::uint64_t call = 0;
  for (const auto& [request, reply] : std::vector<std::pair<std::string, std::string>>{
           {Wire(std::uint16_t{1}) + "fine", Wire(4U) + "fine"},
           {Wire(std::uint16_t{0}) + "old", Wire(4U) + "old"},
           {Wire(std::uint16_t{2}) + "new", Wire(2020009U)},
           {"", Wire(2000005U)},
           {"a", Wire(2000005U)},
           {Wire(std::uint16_t{1}), Wire(2020015U)},
           {Wire(std::uint16_t{1}) + "refuse", Wire(2020015U)}}) {
    ++call;
    socket.Send(WireHeader(static_cast<std::uint32_t>(request.size()), call, kOpcode) + request);
    EXPECT_EQ(socket.Receive(24 + reply.size()),
              WireHeader(static_cast<std::uint32_t>(reply.size()), call, kOpcode) + reply);
  }
  const auto two = std::make_shared<rpc::Message>(rpc::MessageId(kOpcode));
  char bytes[] = "\1\0abc";
  two->Bl().emplace_back(bytes, 5, nullptr);
  two->Bl().emplace_back(bytes, 5, nullptr);
  void* data = nullptr;
  unsigned int size = 0;
  EXPECT_EQ(RpcEngine::ParseRequest(two, data, size), 2000005U);
}

TEST(RpcEngineTest, RepliesThatCannotBeSent) {
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, nullptr, 0, 0), 2000057U);
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, nullptr, 0, kNothing, 0), 2000057U);
  std::mutex mutex;
  std::vector<std::shared_ptr<rpc::ServerContext>> held;
  {
    Answering answering([&](const auto& context, const auto&) {
      std::lock_guard lock(mutex);
      held.push_back(context);
    });
    RawSocket socket = RawSocket::Connect(answering.server.Port());
    socket.Send(WireGreeting() + WireHeader(0, 1, kOpcode) + WireHeader(0, 2, kOpcode));
    ASSERT_TRUE(test::WaitUntil([&] {
      std::lock_guard lock(mutex);
      return held.size() == 2;
    }));
    RpcEngine::mTimeout = 4321;
    for (const auto& [given, used, status] :
         std::vector<std::tuple<long, long, unsigned int>>{{0, 4321, 0}, {99, 99, 1}}) {
      EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[0], 0, nullptr, 0, given), status) << "once";
      EXPECT_EQ(held[0]->mTimeout, used);
    }
    EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[1], 0, nullptr, 0, -1), 0U);
    EXPECT_EQ(held[1]->mTimeout, -1);
  }
  EXPECT_EQ(RpcEngine::SyncRpcReply(kOpcode, held[1], 0, Bytes("x"), 0), 1U);
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

TEST(RpcEngineTest, PhasesAreMeasuredAboveLevelOne) {
  const test::FakeClock clock;  // it moves in those messages alone
  const Ref<BaseMessage> slow(new SlowMessage("x"));
  Answering answering(Body(Wire(0U) + "x"));
  RpcEngine engine;
  ASSERT_EQ(Initialize(engine, answering.server.Port(), 20000), 0U);
  for (const auto& [level, first, third] :
       std::vector<std::tuple<unsigned char, int, int>>{{1, 0, 0}, {2, 300, 500}, {3, 300, 500}}) {
    TimeCounter::SetTimeCountLevel(level);  // there is no level 3
    EXPECT_EQ(engine.SyncRpcCall(kOpcode, slow, slow, 0), 0U);
    EXPECT_THAT((std::vector{RpcEngine::mTimeSer, RpcEngine::mTimeCall, RpcEngine::mTimeDes}),
                ElementsAre(first, 0, third));
  }
  TimeCounter::SetTimeCountLevel(0);
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
  unsigned int SetTimeout() override { return mSetTimeoutResult; }
  unsigned int Fill() { return FillPool(); }

  std::atomic<int> mMade{0};
  unsigned int mSetTimeoutResult = 0;
};

struct Client : RPCEngineBase {
  explicit Client(std::uint16_t port) : mPool(new Pool(port, 2)) { mEnginePool = mPool.Get(); }
  unsigned int Call(long timeout = 0) {
    return SendCall(kOpcode, Bytes("x"), BaseMessage::gNullPtr, timeout);
  }
  Ref<Pool> mPool;
};

TEST(RpcEnginePoolTest, EachCallHasItsEngineAndTheLastOneBackGoesOutFirst) {
  const ScriptedService server;
  for (const std::uint16_t size : {0, 1, 4}) {
    Pool pool(server.Port(), size);
    EXPECT_EQ(pool.Fill(), 0U);
    EXPECT_EQ(pool.mEngines.size(), size == 0 ? 0U : 1U) << "one engine whatever the size";
  }
  Pool pool(server.Port(), 1);
  Ref<RpcEngine> engines[3];
  for (auto& engine : engines) {
    EXPECT_EQ(pool.GetRpcEngine(engine), 0U);
  }
  pool.ReturnRpcEngine(engines[0]);
  pool.ReturnRpcEngine(engines[1]);
  pool.ReturnRpcEngine(nullptr);
  EXPECT_THAT(pool.mEngines, ElementsAre(engines[0], engines[1]));
  EXPECT_EQ(pool.GetRpcEngine(engines[2]), 0U);
  EXPECT_TRUE(engines[2] == engines[1]);
  EXPECT_EQ(pool.mMade, 3);
}

TEST(RpcEnginePoolTest, AMovedPeerIsFollowed) {
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
  EXPECT_EQ(oldServer.Requests().size(), 2U);
  EXPECT_EQ(newServer.Requests().size(), 2U);
  EXPECT_EQ(client.mPool->mMade, 3);

  client.mPool->mPort = 40000;  // above the signed range
  const Ref<RpcEngine> high(new RpcEngine);
  high->mIp = "127.0.0.1";
  high->mPort = static_cast<short>(40000);
  client.mPool->ReturnRpcEngine(high);
  EXPECT_THAT(client.mPool->mEngines, ElementsAre(high)) << "those of the old peer go";
}

TEST(RpcEnginePoolTest, ACallThatFailsHandsItsEngineBack) {
  ScriptedService server;
  Client client(server.Port());
  for (const auto& [reply, status] : std::vector<std::pair<ScriptedService::Reply, unsigned int>>{
           {{2100041, ""}, 2100041}, {{0, "", ScriptedService::Reply::kSilence}, 2020021}, {{0, ""}, 0}}) {
    server.Answer(kOpcode, reply);
    EXPECT_EQ(client.Call(status == 2020021 ? 100 : 0), status);
    EXPECT_EQ(client.mPool->mEngines.size(), 1U);
  }
  EXPECT_EQ(client.mPool->mMade, 1);

  Client nobody(ClosedPort());
  EXPECT_EQ(nobody.mPool->Fill(), 2020019U);
  EXPECT_EQ(nobody.Call(), 2020019U);
  EXPECT_EQ(nobody.mPool->mEngines.size(), 0U);
  EXPECT_EQ(nobody.mPool->mMade, 2) << "each tries again";
  EXPECT_EQ(RPCEngineBase().SendCall(kOpcode, kNothing, kNothing, 0), 2000057U);
}

TEST(RpcEnginePoolTest, ItsSecuritySettingsComeFromTheConfiguration) {
  const ScriptedService server;
  Pool pool(server.Port(), 1);
  EXPECT_EQ(pool.Initialize(), 2000057U) << "before there is a configuration";
  const auto conf = Configuration::gInstance = new Configuration;
  for (const char* key : {"enableTLS", "enableAuthentication"}) {
    conf->Set(std::string("vyn.tessel.rpc.") + key, false);
  }
  for (const char* key : {"auth.kerb.client.keytab", "auth.kerb.server.keytab", "auth.client.principle.name",
                          "auth.server.principle.name", "tls.ca.cert.path", "tls.crl.path", "auth.type"}) {
    conf->Set(std::string("vyn.tessel.rpc.") + key, key);
  }
  for (const bool client : {true, false}) {
    Pool made(server.Port(), 1);
    made.mTlsEnable = made.mAuthEnable = true;
    made.mClientIdentity = client;
    made.mSecurityConf.emplace("tls.ca.cert.path", "/kept");
    EXPECT_EQ(made.Initialize(), 0U);
    EXPECT_FALSE(made.mTlsEnable || made.mAuthEnable);
    EXPECT_EQ(made.mEngines.size(), 1U);
    EXPECT_EQ(made.mSecurityConf.size(), 12U);
    const std::string side = client ? "client" : "server";
    for (const auto& [name, value] :
         std::map<std::string, std::string>{{"tls.ca.cert.path", "/kept"},
                                            {"tls.crl.path", "tls.crl.path"},
                                            {"auth.type", "auth.type"},
                                            {"auth.kerb.keytab", "auth.kerb." + side + ".keytab"},
                                            {"peer.worker.group.index", "5"}}) {
      EXPECT_EQ(made.mSecurityConf.at(name), value);
    }
    EXPECT_THAT(made.mSecurityConf.at("auth.kerb.client.principal"),
                testing::StartsWith("auth." + side + "."));
    EXPECT_THAT(made.mSecurityConf.at("auth.kerb.server.principal"), testing::StartsWith("auth.server."));
  }
  pool.mSetTimeoutResult = 77;
  EXPECT_EQ(pool.Initialize(), 77U);
}

}  // namespace
}  // namespace vyn::common
