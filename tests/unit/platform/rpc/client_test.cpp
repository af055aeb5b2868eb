#include "platform/rpc/client/client.h"

#include "support/raw_socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <set>
#include <thread>

namespace vyn::rpc {
namespace {

using test::RawListener;
using test::RawSocket;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;

constexpr std::uint32_t kId = 9;

/// What one call gave.
struct Answer {
  bool mDone;
  std::int32_t mStatus;
  std::vector<std::string> mBuffers;
};

Answer Call(Client& client, const std::string& text, std::int64_t timeout = RawSocket::kPatience) {
  std::string first = text.substr(0, text.size() / 2);
  std::string second = text.substr(text.size() / 2);
  ClientContext context;
  context.mTimeout = timeout;
  Message request{MessageId(kId)};
  Message response{MessageId(kId)};
  request.Bl().emplace_back(first.data(), first.size(), nullptr);
  request.Bl().emplace_back(second.data(), second.size(), nullptr);
  Answer answer{client.SyncCall(&context, &request, &response, nullptr), context.mStatus, {}};
  for (const Buffer& buffer : response.Bl()) {
    answer.mBuffers.emplace_back(static_cast<const char*>(buffer.Addr()), buffer.Len());
  }
  return answer;
}

/// A server of one thread that treats each connection by a script of the test.
class ScriptedServer {
 public:
  using Script = std::function<void(RawSocket& socket, int connection)>;

  ScriptedServer(int connections, Script script) {
    mThread = std::thread([this, connections, script = std::move(script)] {
      for (int i = 0; i < connections; ++i) {
        RawSocket socket = mListener.Accept();
        ++mAccepted;
        script(socket, i);
      }
    });
  }
  ~ScriptedServer() { mThread.join(); }

  std::uint16_t Port() const { return mListener.Port(); }
  int Accepted() const { return mAccepted; }
  RawListener& Listener() { return mListener; }

 private:
  RawListener mListener;
  std::atomic<int> mAccepted{0};
  std::thread mThread;
};

/// Takes the client's greeting, gives ours, takes a request with a body of `length` bytes. Returns: its call
/// number.
std::uint64_t Greet(RawSocket& socket, std::size_t length) {
  EXPECT_TRUE(socket.Send(WireGreeting()));
  const std::string bytes = socket.Receive(16 + 24 + length);
  EXPECT_EQ(bytes.size(), 16 + 24 + length);
  std::uint64_t call = 0;
  std::memcpy(&call, bytes.data() + 16 + 8, sizeof(call));
  return call;
}

TEST(RpcClient, RequestAndReplyOnTheWire) {
  std::string greeting;
  std::string request;
  ScriptedServer server(1, [&](RawSocket& socket, int) {
    socket.Send(WireGreeting());
    greeting = socket.Receive(16);
    request = socket.Receive(24 + 5);
    socket.Send(WireHeader(3, 1, kId) + "abc");
    socket.Receive(24);
    socket.Send(WireHeader(0, 2, kId));
    socket.Receive(1);  // until the client leaves
  });
  Client client("127.0.0.1", server.Port(), {});
  ASSERT_TRUE(client.Connect());
  Answer answer = Call(client, "hello");
  EXPECT_TRUE(answer.mDone);
  EXPECT_EQ(answer.mStatus, 0);
  EXPECT_EQ(answer.mBuffers, std::vector<std::string>{"abc"});
  EXPECT_EQ(greeting, "VYNR" + Wire(std::uint16_t{1}, std::uint16_t{0}, 0, 1U << 30));
  EXPECT_EQ(request, "VYNF" + Wire(5U, std::uint64_t{1}, kId, 0) + "hello");

  // An empty reply has no buffer, on the same connection.
  answer = Call(client, "");
  EXPECT_TRUE(answer.mDone);
  EXPECT_TRUE(answer.mBuffers.empty());
}

TEST(RpcClient, BadGreetings) {
  const struct {
    const char* mName;
    std::string mBytes;
    std::int32_t mStatus;
    const char* mWords;
  } kCases[] = {
      {"another protocol", "HTTP/1.1 400 Bad", -8, "no greeting of this protocol"},
      {"another version", WireGreeting(1, 0, 2), -8, "another version"},
      {"busy", WireGreeting(1, -11), -11, "too many connections"},
      {"half of it", WireGreeting().substr(0, 7), -19, "before the server's greeting"},
      {"nothing", "", -19, "does it expect TLS?"},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.mName);
    ScriptedServer server(2, [&](RawSocket& socket, int) { socket.Send(one.mBytes); });
    Client client("127.0.0.1", server.Port(), {});
    SecuredClient::mLastErrorMessage.clear();
    EXPECT_FALSE(client.Connect());
    EXPECT_NE(SecuredClient::mLastErrorMessage.find(one.mWords), std::string::npos)
        << SecuredClient::mLastErrorMessage;
    EXPECT_NE(SecuredClient::mLastErrorMessage.find("127.0.0.1:"), std::string::npos);
    const Answer answer = Call(client, "x");
    EXPECT_FALSE(answer.mDone);
    EXPECT_EQ(answer.mStatus, one.mStatus);
  }
}

TEST(RpcClient, BadRepliesEndTheConnectionAndTheNextCallConnectsAgain) {
  const struct {
    const char* mName;
    std::function<void(RawSocket&, std::uint64_t)> mReply;
    std::int32_t mStatus;
    bool mStaysOpen;
  } kCases[] = {
      {"garbage", [](RawSocket& s, std::uint64_t) { s.Send(std::string(64, 'g')); }, -8, false},
      {"4 GiB less 1", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(0xffffffff, c, kId) + "x"); },
       -8, false},
      {"other id", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(1, c, kId + 1) + "x"); }, -8, false},
      {"wide id", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(1, c, kId + 1024) + "x"); }, -8,
       false},
      {"other call", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(1, c - 1, kId) + "x"); }, -8,
       false},
      {"two replies", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(0, c, kId) + "V"); }, -8, false},
      {"status and body", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(1, c, kId, -6) + "x"); }, -8,
       false},
      {"end in the header", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(1, c, kId).substr(0, 9)); },
       -19, false},
      {"end in the body", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(100000, c, kId) + "x"); },
       -19, false},
      {"reset", [](RawSocket& s, std::uint64_t) { s.Reset(); }, -19, false},
      {"a time-out of the server's making",
       [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(0, c, kId, -21)); }, -21, false},
      {"no handler", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(0, c, kId, -6)); }, -6, true},
      {"no answer", [](RawSocket& s, std::uint64_t c) { s.Send(WireHeader(0, c, kId, -5)); }, -5, true},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.mName);
    const auto good = [](RawSocket& socket, std::uint64_t call) {
      socket.Send(WireHeader(2, call, kId) + "ok");
      socket.Receive(1);
    };
    ScriptedServer server(one.mStaysOpen ? 1 : 2, [&](RawSocket& socket, int connection) {
      std::uint64_t call = Greet(socket, 4);
      if (connection == 0) {
        one.mReply(socket, call);
        if (!one.mStaysOpen) {
          return;
        }
        EXPECT_EQ(socket.Receive(24 + 4).size(), 28U);
        ++call;
      }
      good(socket, call);
    });
    Client client("127.0.0.1", server.Port(), {});
    Answer answer = Call(client, "ping");
    EXPECT_FALSE(answer.mDone);
    EXPECT_EQ(answer.mStatus, one.mStatus);
    answer = Call(client, "ping");
    EXPECT_TRUE(answer.mDone) << answer.mStatus;
    EXPECT_EQ(answer.mBuffers, std::vector<std::string>{"ok"});
  }
}

TEST(RpcClient, ALateReplyIsNeverTakenForALaterCall) {
  RawSocket first;
  ScriptedServer server(2, [&](RawSocket& socket, int connection) {
    const std::uint64_t call = Greet(socket, 1);
    if (connection == 0) {
      first = std::move(socket);
      return;
    }
    first.Send(WireHeader(4, call - 1, kId) + "late");
    socket.Send(WireHeader(3, call, kId) + "new");
    socket.Receive(1);
  });
  Client client("127.0.0.1", server.Port(), {});
  Answer answer = Call(client, "a", 200);
  EXPECT_EQ(answer.mStatus, -21);
  answer = Call(client, "b");
  EXPECT_TRUE(answer.mDone);
  EXPECT_EQ(answer.mBuffers, std::vector<std::string>{"new"});
}

TEST(RpcClient, OneDeadlineForTheWholeCall) {
  // Bytes keep coming, each well within the time-out or so fast that the socket is always readable; the reply
  // as a whole does not. With more than a second to go the socket waits by itself.
  using std::chrono::milliseconds;
  const struct {
    milliseconds pause;
    int bytes;
    milliseconds timeout;
  } drips[] = {{milliseconds(50), 1000, milliseconds(400)},
               {milliseconds(50), 1000, milliseconds(1200)},
               {milliseconds(0), 64 << 20, milliseconds(400)}};
  for (const auto& drip : drips) {
    ScriptedServer server(1, [&](RawSocket& socket, int) {
      const std::uint64_t call = Greet(socket, 1);
      socket.Send(WireHeader(static_cast<std::uint32_t>(drip.bytes), call, kId));
      for (int i = 1; i < drip.bytes && socket.Send("x"); ++i) {
        std::this_thread::sleep_for(drip.pause);
      }
    });
    Client client("127.0.0.1", server.Port(), {});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Call(client, "a", drip.timeout.count()).mStatus, -21);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, drip.timeout);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(20));
  }
}

TEST(RpcClient, AServerThatSaysNothingIsATimeOut) {
  RawListener silent;  // the kernel accepts, nobody greets
  Client client("127.0.0.1", silent.Port(), {});
  EXPECT_EQ(Call(client, "a", 150).mStatus, -21);
}

TEST(RpcClient, AConnectionClosedBetweenCallsCostsNothing) {
  ScriptedServer server(3, [&](RawSocket& socket, int connection) {
    const std::uint64_t call = Greet(socket, 1);
    socket.Send(WireHeader(1, call, kId) + std::to_string(connection));
  });
  Client client("127.0.0.1", server.Port(), {});
  for (const char* expected : {"0", "1", "2"}) {
    const Answer answer = Call(client, "a");
    EXPECT_TRUE(answer.mDone) << answer.mStatus;
    EXPECT_EQ(answer.mBuffers, std::vector<std::string>{expected});
    std::this_thread::sleep_for(std::chrono::milliseconds(50));  // lets the end of the connection arrive
  }
}

TEST(RpcClient, ReconnectLimit) {
  for (const int limit : {1, 3, 5}) {
    SCOPED_TRACE(limit);
    ScriptedServer server(limit, [](RawSocket&, int) {});  // each connection ends at once
    Client client("127.0.0.1", server.Port(), {});
    client.SetMaxReconnectTimes(limit);
    client.SetMaxReconnectTimes(129);  // above the ceiling: not taken
    client.SetMaxReconnectTimes(-1);
    EXPECT_EQ(Call(client, "a").mStatus, -19);
    EXPECT_EQ(server.Accepted(), limit);
    EXPECT_FALSE(server.Listener().HasCaller(50));
  }
}

TEST(RpcClient, RefusedPort) {
  RawListener gone;
  const std::uint16_t port = gone.Port();
  gone.Close();
  Client client("127.0.0.1", port, {});
  EXPECT_FALSE(client.Connect());
  EXPECT_NE(SecuredClient::mLastErrorMessage.find("refused"), std::string::npos)
      << SecuredClient::mLastErrorMessage;
  EXPECT_EQ(Call(client, "a").mStatus, -19);
}

TEST(RpcClient, RequestsThatAreNotSent) {
  ScriptedServer server(1, [](RawSocket& socket, int) {
    socket.Send(WireGreeting(100));
    EXPECT_EQ(socket.Receive(16 + 24 + 100).substr(16), WireHeader(100, 1, kId) + std::string(100, 'x'));
    socket.Send(WireHeader(0, 1, kId));
    socket.Receive(1);
  });
  Client client("127.0.0.1", server.Port(), {});
  EXPECT_EQ(Call(client, std::string(101, 'x')).mStatus, -9);
  EXPECT_NE(SecuredClient::mLastErrorMessage.find("101 bytes"), std::string::npos);
  ClientContext context;
  context.mTimeout = 1000;
  Message message{MessageId(kId)};
  EXPECT_FALSE(client.SyncCall(&context, nullptr, &message, nullptr));
  EXPECT_EQ(context.mStatus, -15);
  Message broken{MessageId(kId)};
  broken.Bl().emplace_back(nullptr, 4, nullptr);
  EXPECT_FALSE(client.SyncCall(&context, &broken, &message, nullptr));
  EXPECT_EQ(context.mStatus, -15);
  // None of them cost the connection.
  EXPECT_TRUE(Call(client, std::string(100, 'x')).mDone);

  Client nowhere("localhost", server.Port(), {});
  EXPECT_EQ(Call(nowhere, "x").mStatus, -15);
  EXPECT_NE(SecuredClient::mLastErrorMessage.find("\"localhost\" is no IP address"), std::string::npos);
}

TEST(RpcClient, FlagsThatCannotBeHonoured) {
  RawListener listener;
  const struct {
    bool mTls;
    bool mAuthentication;
    const char* mWords;
    std::int32_t mStatus;
  } kCases[] = {{true, false, "no OpenSSL libraries are set (vyn.tessel.rpc.openssl.path", -13},
                {false, true, "no mechanism is present for auth.type \"KERBEROS\"", -14},
                {true, true, "no mechanism is present for auth.type \"KERBEROS\"", -14}};
  for (const auto& one : kCases) {
    SecuredClient client("127.0.0.1", listener.Port(), {}, one.mTls, one.mAuthentication);
    EXPECT_EQ(Call(client, "x").mStatus, -15);  // not initialised
    EXPECT_FALSE(client.Initialize({{"auth.type", "KERBEROS"}, {"tls.ca.cert.path", "/nowhere"}}, 1000));
    EXPECT_NE(SecuredClient::mLastErrorMessage.find(one.mWords), std::string::npos);
    EXPECT_FALSE(client.Connect());
    ClientContext context;
    context.mTimeout = 1000;
    EXPECT_FALSE(client.ReconnectAndAuth(&context, true));
    EXPECT_EQ(context.mStatus, one.mStatus);
    EXPECT_EQ(Call(client, "x").mStatus, one.mStatus);
    EXPECT_NE(SecuredClient::mLastErrorMessage.find(one.mWords), std::string::npos);
  }
  EXPECT_FALSE(listener.HasCaller(50));
}

TEST(RpcClient, CallbackAndStatusTexts) {
  struct Count : Callback {
    void Done(int status) override { mStatuses.push_back(status); }
    std::vector<int> mStatuses;
  } count;
  RawListener silent;
  Client client("127.0.0.1", silent.Port(), {});
  ClientContext context;
  context.mTimeout = 50;
  Message message{MessageId(1)};
  Message response{MessageId(1)};
  client.SyncCall(&context, &message, &response, &count);
  EXPECT_EQ(count.mStatuses, std::vector<int>{-21});

  std::set<std::string> texts;
  for (const int status : {0, -5, -6, -8, -9, -11, -12, -13, -14, -15, -19, -21, -100}) {
    texts.insert(VynRpcStatusString(status));
  }
  EXPECT_EQ(texts.size(), 13U);
}

}  // namespace
}  // namespace vyn::rpc
