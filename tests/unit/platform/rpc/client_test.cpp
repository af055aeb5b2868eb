#include "platform/rpc/client/client.h"

#include "platform/net/blocking_stream.h"
#include "support/net/memory_stream.h"
#include "support/net/peers.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"

namespace vyn::rpc {
namespace {

using std::chrono::milliseconds;
using test::Call;
using test::kCallId;
using test::RawListener;
using test::RawSocket;
using test::ScriptedServer;
using test::Wire;
using test::WireFrame;
using test::WireGreeting;
using testing::HasSubstr;

/// Takes the client's greeting, gives ours, takes a request with a body of `length` bytes. Returns: the call's
/// number.
std::uint64_t Greet(RawSocket& socket, std::size_t length) {
  EXPECT_TRUE(socket.Send(WireGreeting()));
  const std::string bytes = socket.Receive(16 + 24 + length);
  std::uint64_t call = 0;
  bytes.copy(reinterpret_cast<char*>(&call), sizeof(call), std::min<std::size_t>(16 + 8, bytes.size()));
  return call;
}

TEST(RpcClient, TheClientSendsTheseBytesForEachRequest) {
  std::string said;
  {
    ScriptedServer server(1, [&](RawSocket& socket, int) {
      socket.Send(WireGreeting(100));
      said = socket.Receive(16 + 24 + 5);
      socket.Send(WireFrame(kCallId, "abc"));
      said += socket.Receive(24 + 100);
      socket.Send(WireFrame(kCallId, "", 2));
      socket.Receive(1);  // until the client leaves
    });
    Client client("127.0.0.1", server.Port(), {});
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(Call(client, "hello"), "abc");
    // Neither of these costs the connection.
    EXPECT_EQ(Call(client, std::string(101, 'x')), "-9");
    ClientContext context;
    Message broken{MessageId(kCallId)};
    Message response{MessageId(kCallId)};
    broken.Bl().emplace_back(nullptr, 4, nullptr);
    EXPECT_FALSE(client.SyncCall(&context, &broken, &response, nullptr));
    EXPECT_EQ(context.mStatus, -15);
    EXPECT_EQ(Call(client, std::string(100, 'x')), "");
  }
  EXPECT_EQ(said, WireGreeting(1 << 30) + WireFrame(kCallId, "hello") +
                      WireFrame(kCallId, std::string(100, 'x'), 2));
}

TEST(RpcClient, AnInvalidGreetingFailsTheConnection) {
  for (const test::Peer& peer : test::Peers("greeting", {})) {
    SCOPED_TRACE(peer.name);
    ScriptedServer server(2, [&](RawSocket& socket, int) { peer.Play(socket); });
    Client client("127.0.0.1", server.Port(), {});
    EXPECT_FALSE(client.Connect());
    EXPECT_THAT(SecuredClient::mLastErrorMessage, HasSubstr(std::to_string(server.Port())));
    EXPECT_EQ(Call(client, "x"), peer.expected);
  }
}

TEST(RpcClient, AnInvalidReplyClosesTheConnectionAndTheNextCallReconnects) {
  for (const test::Peer& peer : test::Peers("reply", {{"call", Wire(std::uint64_t{1})}})) {
    SCOPED_TRACE(peer.name);
    const bool kept = peer.follows == "stay";
    ScriptedServer server(kept ? 1 : 2, [&](RawSocket& socket, int connection) {
      std::uint64_t call = Greet(socket, 4);
      if (connection == 0) {
        peer.Play(socket);
        if (!kept) {
          return;
        }
        call += socket.Receive(24 + 4).size() / 28;
      }
      socket.Send(WireFrame(kCallId, "ok", call));
      socket.Receive(1);
    });
    Client client("127.0.0.1", server.Port(), {});
    EXPECT_EQ(Call(client, "ping", -1), peer.expected.substr(0, peer.expected.find(' ')));
    EXPECT_EQ(Call(client, "ping"), "ok");
  }
}

TEST(RpcClient, TheClientDropsALateReplyInsteadOfGivingItToALaterCall) {
  RawSocket first;
  ScriptedServer server(2, [&](RawSocket& socket, int connection) {
    const std::uint64_t call = Greet(socket, 1);
    if (connection == 0) {
      first = std::move(socket);
      return;
    }
    first.Send(WireFrame(kCallId, "late", call - 1));
    socket.Send(WireFrame(kCallId, "new", call));
    socket.Receive(1);
  });
  Client client("127.0.0.1", server.Port(), {});
  EXPECT_EQ(Call(client, "a", 200), "-21");
  EXPECT_EQ(Call(client, "b"), "new");
}

TEST(RpcClient, AForkedChildLeavesTheConnectionToItsParent) {
  RawSocket first;
  ScriptedServer server(2, [&](RawSocket& socket, int connection) {
    socket.Send(WireFrame(kCallId, "own", Greet(socket, 1)));
    if (connection == 0) {
      first = std::move(socket);
      return;
    }
    socket.Receive(1);  // until the child leaves
    first.Receive(24 + 1);
    first.Send(WireFrame(kCallId, "again", 2));
  });
  Client client("127.0.0.1", server.Port(), {});
  EXPECT_EQ(Call(client, "a", std::int64_t{1} << 44), "own") << "more milliseconds than the clock holds";
  const pid_t child = ::fork();
  if (child == 0) {
    ::_exit(Call(client, "b", 30000) == "own" ? 0 : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_EQ(Call(client, "c", 30000), "again");
}

TEST(RpcClient, OneDeadlineCoversConnectRequestAndReply) {
  // Bytes keep coming, each well within the time-out or so fast that the socket is always readable; the reply
  // as a whole does not. With more than a second to go the socket waits by itself.
  for (const auto& [pause, size, timeout] :
       {std::tuple{50, 1000, 400}, {50, 1000, 1200}, {0, 64 << 20, 400}}) {
    ScriptedServer server(1, [pause = pause, size = size](RawSocket& socket, int) {
      const std::uint64_t call = Greet(socket, 1);
      socket.Send(test::WireHeader(static_cast<std::uint32_t>(size), call, kCallId));
      for (int i = 1; i < size && socket.Send("x"); ++i) {
        std::this_thread::sleep_for(milliseconds(pause));
      }
    });
    Client client("127.0.0.1", server.Port(), {});
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(Call(client, "a", timeout), "-21");
    EXPECT_GE(std::chrono::steady_clock::now() - begin, milliseconds(timeout));
  }
  RawListener silent;  // the kernel accepts, nobody greets
  Client client("127.0.0.1", silent.Port(), {});
  EXPECT_EQ(Call(client, "a", 150), "-21");
}

TEST(RpcClient, AWriteThatIsTooSlowEndsAtItsDeadline) {
  net::BlockingStream stream(std::make_unique<test::MemoryStream>(""), -1);
  iovec bytes{nullptr, std::size_t{1} << 26};  // one leaves at a time, and nobody looks at it
  EXPECT_EQ(stream.Write(&bytes, 1, net::Deadline(50)), net::IoStatus::kTimeout);
}

TEST(RpcClient, TheClientSendsNothingWithoutTheRequiredSecurityOrConnection) {
  RawListener listener;
  // Not a word leaves with flags that cannot be honoured.
  for (const auto& [tls, authentication, status] :
       {std::tuple{true, false, "-13"}, {false, true, "-14"}, {true, true, "-14"}}) {
    SecuredClient client("127.0.0.1", listener.Port(), {}, tls, authentication);
    EXPECT_EQ(Call(client, "x"), "-15") << "not initialised";
    EXPECT_FALSE(client.Initialize({{"auth.type", "KERBEROS"}, {"tls.ca.cert.path", "/nowhere"}}, 1000));
    ClientContext context;
    EXPECT_FALSE(client.Connect() || client.ReconnectAndAuth(&context, true));
    EXPECT_EQ(Call(client, "x"), status);
  }
  EXPECT_FALSE(listener.HasCaller(50));
  listener.Close();
  for (const auto& [host, status] : {std::pair{"localhost", "-15"}, {"127.0.0.1", "-19"}}) {
    Client nowhere(host, listener.Port(), {});
    EXPECT_FALSE(nowhere.Connect());
    EXPECT_EQ(Call(nowhere, "x"), status);
  }
}

}  // namespace
}  // namespace vyn::rpc
