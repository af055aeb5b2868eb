#include "platform/rpc/server/server.h"

#include "platform/rpc/wire/frame.h"
#include "support/net/peers.h"
#include "support/pattern.h"
#include "support/rpc/rpc_calls.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::rpc {
namespace {

using test::RawSocket;
using test::Reply;
using test::WaitUntil;
using test::WireFrame;
using test::WireGreeting;

constexpr std::uint32_t kEcho = 1;       // answers with what came, as a handler that may block
constexpr std::uint32_t kQuickEcho = 2;  // the same as a quick one
constexpr std::uint32_t kHold = 3;       // answers when the test lets it
constexpr std::uint32_t kBig = 4;        // answers with twice as many bytes as the request says
constexpr std::uint32_t kThrow = 5;
constexpr std::chrono::seconds kLimit(20);

class RpcServer : public testing::Test {
 protected:
  using Context = std::shared_ptr<ServerContext>;

  void Start() {
    mOptions.mReport = [this](const std::string&) { ++mReports; };
    mServer = std::make_unique<Server>(mOptions);
    mServer->Register(MessageId(kEcho), test::Echo);
    mServer->Register(MessageId(kQuickEcho), test::Echo, HandlerKind::kQuick);
    mServer->Register(MessageId(kHold), [this](const auto& context, const auto&) {
      std::lock_guard lock(mMutex);
      mHeld.push_back(context);
    });
    mServer->Register(MessageId(kBig), [](const auto& context, const auto& request) {
      std::string half = test::Pattern(std::stoul(test::TextOf(*request)), 1);
      auto* own = new std::string(half);
      Message reply{MessageId(kBig)};
      reply.Bl().emplace_back(half.data(), half.size(), nullptr);
      reply.Bl().emplace_back(own->data(), own->size(), [own](void*) { delete own; });
      Server::Reply(context, &reply, nullptr);
    });
    mServer->Register(MessageId(kThrow),
                      [](const auto&, const auto&) { throw std::runtime_error("broken handler"); });
    ASSERT_TRUE(mServer->Start("127.0.0.1", 0)) << Server::mLastErrorMessage;
  }

  /// A raw connection with both greetings behind it.
  RawSocket Open(int receiveBuffer = 0) {
    RawSocket socket = RawSocket::Connect(mServer->Port(), receiveBuffer);
    EXPECT_TRUE(socket.Send(WireGreeting(1 << 30)));
    EXPECT_EQ(socket.Receive(16), WireGreeting(static_cast<std::uint32_t>(mOptions.mMaxFrameLength)));
    return socket;
  }
  void ExpectServes() {
    RawSocket socket = Open();
    socket.Send(WireFrame(kEcho, "ping"));
    EXPECT_EQ(socket.Receive(28), WireFrame(kEcho, "ping"));
  }
  /// Waits for a request of kHold.
  Context TakeHeld() {
    Context held;
    EXPECT_TRUE(WaitUntil([&] {
      std::lock_guard lock(mMutex);
      if (!mHeld.empty()) {
        held = std::move(mHeld.front());
        mHeld.pop_front();
      }
      return held != nullptr;
    }));
    return held;
  }

  ServerOptions mOptions;
  std::atomic<int> mReports{0};
  std::mutex mMutex;  // guards mHeld
  std::deque<Context> mHeld;
  std::unique_ptr<Server> mServer;
};

TEST_F(RpcServer, TheServerSendsTheseBytesForEachRequest) {
  mOptions.mMaxFrameLength = 77777;
  Start();
  RawSocket socket = Open();
  std::uint64_t call = 0x1122334455667788;
  using Row = std::tuple<std::uint32_t, std::string, std::int32_t>;
  for (const auto& [id, body, status] :
       {Row{kEcho, "hello", 0}, Row{kQuickEcho, "hello", 0}, Row{kQuickEcho, "", 0},
        Row{kEcho, std::string(77777, 'l'), 0}, Row{kThrow, "throw", -5}, Row{999, "no", -6}}) {
    const std::string request = WireFrame(id, body, ++call);
    for (const std::string& piece : {request.substr(0, 3), request.substr(3, 20), request.substr(23)}) {
      socket.Send(piece);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    const std::string reply = WireFrame(id, status == 0 ? body : "", call, status);
    EXPECT_EQ(socket.Receive(reply.size()), reply);
  }
  // A reply longer than the client takes becomes a status of its own.
  RawSocket narrow = RawSocket::Connect(mServer->Port());
  narrow.Send(WireGreeting(4) + WireFrame(kEcho, "12345"));
  EXPECT_EQ(narrow.Receive(16 + 24).substr(16), WireFrame(kEcho, "", 1, -9));
}

TEST_F(RpcServer, InvalidBytesCloseTheirOwnConnectionOnly) {
  mOptions.mMaxFrameLength = 1000;
  Start();
  int count = 0;
  for (const test::Peer& peer : test::Peers("server", {{"greeting", WireGreeting()}})) {
    SCOPED_TRACE(peer.name);
    RawSocket socket = RawSocket::Connect(mServer->Port());
    socket.Receive(16);
    peer.Play(socket);
    EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
    ++count;
    EXPECT_TRUE(WaitUntil([&] { return mReports == count; }));
    ExpectServes();
  }
}

TEST_F(RpcServer, TheServerAnswersEveryPipelinedRequest) {
  mOptions.mMaxPendingCalls = 4;
  Start();
  RawSocket socket = Open();
  std::string requests;
  std::set<std::string> expected;
  std::set<std::string> replies;
  for (std::uint64_t call = 0; call < 300; ++call) {
    const std::uint32_t id = call < 4 ? kHold : call % 2 + kEcho;
    const std::string frame = WireFrame(id, std::string(id == kHold ? 0 : call * 7 % 400, 'b'), call);
    expected.insert(frame);
    requests += frame;
  }
  ASSERT_TRUE(socket.Send(requests));
  const Context held[] = {TakeHeld(), TakeHeld(), TakeHeld(), TakeHeld()};
  EXPECT_FALSE(socket.Readable(100));  // the rest waits in the socket
  for (const Context& context : held) {
    Reply(context, kHold, "");
  }
  while (replies.size() < expected.size()) {
    const std::string header = socket.Receive(24);
    ASSERT_EQ(header.size(), 24U);
    std::uint32_t length = 0;
    std::memcpy(&length, header.data() + 4, sizeof(length));
    replies.insert(header + socket.Receive(length));
  }
  EXPECT_EQ(replies, expected);
}

TEST_F(RpcServer, ReplySucceedsOnceForARequestWhileItsConnectionIsOpen) {
  mOptions.mStopTimeout = 100;  // a call is left open below
  Start();
  RawSocket socket = Open();
  socket.Send(WireFrame(kHold, "") + WireFrame(kHold, "") + WireFrame(kHold, ""));
  const Context contexts[] = {TakeHeld(), TakeHeld(), TakeHeld()};
  EXPECT_TRUE(Reply(contexts[0], kHold, "one"));
  EXPECT_EQ(socket.Receive(24 + 3), WireFrame(kHold, "one"));
  EXPECT_FALSE(Reply(contexts[0], kHold, "again"));
  EXPECT_EQ(contexts[0]->mStatus, -15);
  socket.Reset();
  ASSERT_TRUE(WaitUntil([&] { return mServer->Connections() == 0; }));
  EXPECT_FALSE(Reply(contexts[1], kHold, "nobody there"));
  mServer.reset();
  EXPECT_FALSE(Reply(contexts[2], kHold, "no server"));
  EXPECT_EQ(contexts[2]->mStatus, -19);
}

TEST_F(RpcServer, AConnectionAboveTheLimitGetsAStatus) {
  mOptions.mMaxConnections = 2;
  Start();
  RawSocket first = Open();
  const RawSocket second = Open();
  EXPECT_EQ(RawSocket::Connect(mServer->Port()).Receive(17), WireGreeting(0, -11));
  EXPECT_EQ(mReports, 1);
  first.Close();
  ASSERT_TRUE(WaitUntil([&] { return mServer->Connections() == 1; }));
  ExpectServes();
}

TEST_F(RpcServer, AClientThatExceedsATimeLimitIsDisconnected) {
  const std::tuple<std::int64_t ServerOptions::*, std::string, bool> kCases[] = {
      {&ServerOptions::mHandshakeTimeout, "", false},
      {&ServerOptions::mFrameTimeout, WireGreeting() + test::WireHeader(1000, 1, kEcho), true},
      {&ServerOptions::mFrameTimeout, WireGreeting(1 << 30) + WireFrame(kBig, "20000000"), false}};
  int count = 0;
  for (const auto& [time, atOnce, drips] : kCases) {
    mOptions = {};
    mOptions.*time = 150;
    Start();
    RawSocket slow = RawSocket::Connect(mServer->Port(), 4096);
    slow.Send(atOnce);
    EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 1; }));
    for (int i = 0; drips && i < 1000 && slow.Send("x"); ++i) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    ++count;
    EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 0 && mReports == count; }, kLimit));
  }
}

TEST_F(RpcServer, TheServerClosesAnIdleConnectionAndKeepsOneWithAPendingCall) {
  mOptions.mIdleTimeout = 400;
  Start();
  RawSocket waiting = Open();
  waiting.Send(WireFrame(kHold, ""));
  const Context held = TakeHeld();
  EXPECT_TRUE(Open().EndsWithin(RawSocket::kPatience));
  EXPECT_TRUE(Reply(held, kHold, "still here"));
  EXPECT_EQ(waiting.Receive(34), WireFrame(kHold, "still here"));
}

TEST_F(RpcServer, TheServerLimitsThePendingBytes) {
  mOptions.mMaxPendingBytes = 1000;
  Start();
  RawSocket first = Open();
  RawSocket second = Open();
  RawSocket stuck = Open(4096);
  const std::string small = WireFrame(kEcho, std::string(100, 's'));
  const std::string large = WireFrame(kEcho, std::string(200000, 'x'));
  const auto secondWaits = [&] {
    return WaitUntil([&] {
      second.Send(small);
      return !second.Readable(100) || second.Receive(small.size()) != small;
    });
  };

  // A request without its answer.
  first.Send(WireFrame(kHold, std::string(1200, 'f')));
  Context held = TakeHeld();
  EXPECT_TRUE(secondWaits());
  EXPECT_TRUE(Reply(held, kHold, ""));
  EXPECT_EQ(second.Receive(small.size()), small);
  EXPECT_EQ(first.Receive(24), WireFrame(kHold, ""));

  // A request that has only begun; what has begun can end.
  first.Send(large.substr(0, 25));
  EXPECT_TRUE(secondWaits());
  first.Send(large.substr(25));
  EXPECT_EQ(first.Receive(large.size()), large);
  EXPECT_EQ(second.Receive(small.size()), small);

  // Replies that nobody reads.
  first.Send(WireFrame(kHold, ""));
  held = TakeHeld();
  stuck.Send(WireFrame(kBig, "20000000"));
  ASSERT_TRUE(stuck.Readable(RawSocket::kPatience));
  EXPECT_TRUE(secondWaits());
  Open();  // new connections come in all the same
  EXPECT_FALSE(Reply(held, kHold, std::string(40000000, 'l')));
  EXPECT_EQ(held->mStatus, -19);
  stuck.Close();
  EXPECT_EQ(second.Receive(small.size()), small);
}

TEST_F(RpcServer, StopWaitsForTheRepliesOfRunningCalls) {
  Start();
  RawSocket socket = Open();
  socket.Send(WireFrame(kHold, ""));
  const Context held = TakeHeld();
  {
    const auto stop = [&] { mServer->Stop(); };
    const std::future<void> first = std::async(std::launch::async, stop);
    const std::future<void> second = std::async(std::launch::async, stop);
    EXPECT_EQ(first.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout);
    EXPECT_EQ(second.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    socket.Send(WireFrame(kEcho, "", 2));  // comes too late
    EXPECT_TRUE(Reply(held, kHold, "done"));
  }
  EXPECT_EQ(socket.Receive(29), WireFrame(kHold, "done"));
  EXPECT_THROW(RawSocket::Connect(mServer->Port()), std::runtime_error);
}

TEST_F(RpcServer, StartFailsTwiceOrWithABadAddressPortOrOption) {
  Start();
  EXPECT_FALSE(mServer->Start("127.0.0.1", 0)) << "twice";
  EXPECT_FALSE(Server().Start("127.0.0.1", mServer->Port())) << "a port that is taken";
  EXPECT_FALSE(Server().Start("localhost", 0)) << "no address";
  for (const auto option : {&ServerOptions::mAuthentication, &ServerOptions::mTls}) {
    ServerOptions options;
    options.*option = true;  // there is no mechanism, and no OpenSSL
    EXPECT_FALSE(Server(options).Start("127.0.0.1", 0));
  }
}

}  // namespace
}  // namespace vyn::rpc
