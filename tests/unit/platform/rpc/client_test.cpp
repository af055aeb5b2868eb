#include "platform/rpc/client/client.h"

#include "support/peers.h"
#include "support/test.h"

namespace {

std::atomic<bool> gTricklesOut{false};  // of each send one byte leaves, and after a while

}  // namespace

/// In front of the C library's, for a peer that takes a little each time.
extern "C" ssize_t sendmsg(int socket, const msghdr* message, int flags) {
  static const auto real = reinterpret_cast<decltype(&sendmsg)>(dlsym(RTLD_NEXT, "sendmsg"));
  if (!gTricklesOut) {
    return real(socket, message, flags);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  iovec byte{message->msg_iov[0].iov_base, 1};
  msghdr little = *message;
  little.msg_iov = &byte;
  little.msg_iovlen = 1;
  return real(socket, &little, flags);
}

namespace vyn::rpc {
namespace {

using std::chrono::milliseconds;
using test::RawListener;
using test::RawSocket;
using test::ScriptedServer;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;
using testing::HasSubstr;

constexpr std::uint32_t kId = 9;

/// What one call gave.
struct Answer {
  std::int32_t mStatus;
  std::vector<std::string> mBuffers;

  bool operator==(const Answer&) const = default;
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
  struct Told : Callback {
    void Done(int status) override { mStatus = status; }
    int mStatus = 1;
  } told;
  const bool done = client.SyncCall(&context, &request, &response, &told);
  EXPECT_EQ(done, context.mStatus == 0);
  EXPECT_EQ(told.mStatus, context.mStatus);
  Answer answer{context.mStatus, {}};
  for (const Buffer& buffer : response.Bl()) {
    answer.mBuffers.emplace_back(static_cast<const char*>(buffer.Addr()), buffer.Len());
  }
  return answer;
}

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
  EXPECT_EQ(Call(client, "hello"), (Answer{0, {"abc"}}));
  EXPECT_EQ(greeting, "VYNR" + Wire(std::uint16_t{1}, std::uint16_t{0}, 0, 1U << 30));
  EXPECT_EQ(request, "VYNF" + Wire(5U, std::uint64_t{1}, kId, 0) + "hello");
  EXPECT_EQ(Call(client, ""), (Answer{0, {}}));  // an empty reply has no buffer
}

TEST(RpcClient, BadGreetings) {
  for (const test::Peer& peer : test::Peers("greeting", {})) {
    SCOPED_TRACE(peer.name);
    ScriptedServer server(2, [&](RawSocket& socket, int) { peer.Play(socket); });
    Client client("127.0.0.1", server.Port(), {});
    SecuredClient::mLastErrorMessage.clear();
    EXPECT_FALSE(client.Connect());
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr("127.0.0.1:"));
    EXPECT_EQ(Call(client, "x"), (Answer{std::stoi(peer.expected), {}}));
  }
}

TEST(RpcClient, BadRepliesEndTheConnectionAndTheNextCallConnectsAgain) {
  for (const test::Peer& peer : test::Peers("reply", {{"call", Wire(std::uint64_t{1})}})) {
    SCOPED_TRACE(peer.name);
    const bool kept = peer.follows == "stay";
    ScriptedServer server(kept ? 1 : 2, [&](RawSocket& socket, int connection) {
      std::uint64_t call = Greet(socket, 4);
      if (connection == 0) {
        EXPECT_EQ(call, 1U);
        peer.Play(socket);
        if (!kept) {
          return;
        }
        call += socket.Receive(24 + 4).size() / 28;
      }
      socket.Send(WireHeader(2, call, kId) + "ok");
      socket.Receive(1);
    });
    Client client("127.0.0.1", server.Port(), {});
    EXPECT_EQ(Call(client, "ping"), (Answer{std::stoi(peer.expected), {}}));
    EXPECT_EQ(Call(client, "ping"), (Answer{0, {"ok"}}));
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
  EXPECT_EQ(Call(client, "a", 200).mStatus, -21);
  EXPECT_EQ(Call(client, "b"), (Answer{0, {"new"}}));
}

TEST(RpcClient, OneDeadlineForTheWholeCall) {
  // Bytes keep coming, each well within the time-out or so fast that the socket is always readable; the reply
  // as a whole does not. With more than a second to go the socket waits by itself.
  for (const auto& [wait, size, time] : {std::tuple{50, 1000, 400}, {50, 1000, 1200}, {0, 64 << 20, 400}}) {
    const milliseconds pause(wait);
    const milliseconds timeout(time);
    const int bytes = size;
    ScriptedServer server(1, [&](RawSocket& socket, int) {
      const std::uint64_t call = Greet(socket, 1);
      socket.Send(WireHeader(static_cast<std::uint32_t>(bytes), call, kId));
      for (int i = 1; i < bytes && socket.Send("x"); ++i) {
        std::this_thread::sleep_for(pause);
      }
    });
    Client client("127.0.0.1", server.Port(), {});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Call(client, "a", timeout.count()).mStatus, -21);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, timeout);
  }
  RawListener silent;  // the kernel accepts, nobody greets
  Client client("127.0.0.1", silent.Port(), {});
  EXPECT_EQ(Call(client, "a", 150).mStatus, -21);
}

TEST(RpcClient, ARequestThatLeavesTooSlowlyEndsAtItsDeadline) {
  std::size_t received = 0;
  {
    ScriptedServer server(1, [&](RawSocket& socket, int) {
      socket.Send(WireGreeting());
      received = socket.Receive(16 + 24 + 1000).size();
    });
    Client client("127.0.0.1", server.Port(), {});
    ASSERT_TRUE(client.Connect());
    gTricklesOut = true;
    EXPECT_EQ(Call(client, std::string(1000, 'x'), 200).mStatus, -21);
    gTricklesOut = false;
  }
  EXPECT_LT(received, 16U + 24 + 1000);
}

TEST(RpcClient, AConnectionClosedBetweenCallsCostsNothing) {
  ScriptedServer server(3, [&](RawSocket& socket, int connection) {
    const std::uint64_t call = Greet(socket, 1);
    socket.Send(WireHeader(1, call, kId) + std::to_string(connection));
  });
  Client client("127.0.0.1", server.Port(), {});
  for (const char* expected : {"0", "1", "2"}) {
    EXPECT_EQ(Call(client, "a"), (Answer{0, {expected}}));
    std::this_thread::sleep_for(milliseconds(50));  // lets the end of the connection arrive
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

TEST(RpcClient, RequestsThatAreNotSent) {
  ScriptedServer server(1, [](RawSocket& socket, int) {
    socket.Send(WireGreeting(100));
    EXPECT_EQ(socket.Receive(16 + 24 + 100).substr(16), WireHeader(100, 1, kId) + std::string(100, 'x'));
    socket.Send(WireHeader(0, 1, kId));
    socket.Receive(1);
  });
  Client client("127.0.0.1", server.Port(), {});
  EXPECT_EQ(Call(client, std::string(101, 'x')).mStatus, -9);
  ClientContext context;
  context.mTimeout = 1000;
  Message message{MessageId(kId)};
  Message broken{MessageId(kId)};
  broken.Bl().emplace_back(nullptr, 4, nullptr);
  for (Message* request : {static_cast<Message*>(nullptr), &broken}) {
    EXPECT_FALSE(client.SyncCall(&context, request, &message, nullptr));
    EXPECT_EQ(context.mStatus, -15);
  }
  // None of them cost the connection.
  EXPECT_EQ(Call(client, std::string(100, 'x')).mStatus, 0);

  RawListener gone;
  const std::uint16_t port = gone.Port();
  gone.Close();
  for (const auto& [host, status] : {std::pair{"localhost", -15}, {"127.0.0.1", -19}}) {
    Client nowhere(host, port, {});
    EXPECT_FALSE(nowhere.Connect());
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(host));
    EXPECT_EQ(Call(nowhere, "x").mStatus, status);
  }
}

TEST(RpcClient, FlagsThatCannotBeHonoured) {
  RawListener listener;
  for (const auto& [tls, authentication, words, status] : {std::tuple{true, false, "OpenSSL", -13},
                                                           {false, true, "\"KERBEROS\"", -14},
                                                           {true, true, "\"KERBEROS\"", -14}}) {
    SecuredClient client("127.0.0.1", listener.Port(), {}, tls, authentication);
    EXPECT_EQ(Call(client, "x").mStatus, -15);  // not initialised
    EXPECT_FALSE(client.Initialize({{"auth.type", "KERBEROS"}, {"tls.ca.cert.path", "/nowhere"}}, 1000));
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(words));
    EXPECT_FALSE(client.Connect());
    ClientContext context;
    context.mTimeout = 1000;
    EXPECT_FALSE(client.ReconnectAndAuth(&context, true));
    EXPECT_EQ(context.mStatus, status);
    EXPECT_EQ(Call(client, "x").mStatus, status);
  }
  EXPECT_FALSE(listener.HasCaller(50));
}

TEST(RpcClient, EachStatusHasATextOfItsOwn) {
  std::set<std::string> texts;
  for (const int status : {0, -5, -6, -8, -9, -11, -12, -13, -14, -15, -19, -21, -100}) {
    texts.insert(VynRpcStatusString(status));
  }
  EXPECT_EQ(texts.size(), 13U);
}

}  // namespace
}  // namespace vyn::rpc
