#include "platform/rpc/server/server.h"

#include "platform/net/deadline.h"
#include "platform/rpc/wire/frame.h"
#include "support/peers.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::rpc {
namespace {

using test::RawSocket;
using test::WaitUntil;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;
using testing::HasSubstr;

constexpr std::uint32_t kEcho = 1;       // answers with what came, as a handler that may block
constexpr std::uint32_t kQuickEcho = 2;  // the same as a quick one
constexpr std::uint32_t kHold = 3;       // answers when the test lets it
constexpr std::uint32_t kBig = 4;        // answers with as many bytes as the request says
constexpr std::uint32_t kBigOwned = 5;   // the same from memory that the reply owns
constexpr std::uint32_t kThrow = 6;      // answers nothing

std::string Text(const Message& message) {
  std::string text;
  for (const Buffer& buffer : message.Bl()) {
    text.append(static_cast<const char*>(buffer.Addr()), buffer.Len());
  }
  return text;
}

bool Reply(const std::shared_ptr<ServerContext>& context, std::uint32_t id, const std::string& text) {
  Message reply{MessageId(id)};
  reply.Bl().emplace_back(const_cast<char*>(text.data()), text.size(), nullptr);
  return Server::Reply(context, &reply, nullptr);
}

std::string BigText(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = static_cast<char>(i * 31 + i / 251);
  }
  return text;
}

/// A request that makes the server answer with `size` bytes.
std::string BigRequest(std::uint32_t id, std::size_t size) {
  const std::string number = std::to_string(size);
  return WireHeader(static_cast<std::uint32_t>(number.size()), 1, id) + number;
}

class RpcServer : public testing::Test {
 protected:
  using Held = std::pair<std::shared_ptr<ServerContext>, std::string>;

  ~RpcServer() override {
    mHeld.clear();
    mServer.reset();
  }

  void Start(ServerOptions options = {}) {
    options.mReport = [this](const std::string& line) {
      std::lock_guard lock(mMutex);
      mReports += line + "\n";
    };
    mServer = std::make_unique<Server>(std::move(options));
    const auto echo = [](const auto& context, const auto& request) {
      Reply(context, request->Id().Value(), Text(*request));
    };
    mServer->Register(MessageId(kEcho), echo);
    mServer->Register(MessageId(kQuickEcho), echo, HandlerKind::kQuick);
    mServer->Register(MessageId(kHold), [this](const auto& context, const auto& request) {
      std::lock_guard lock(mMutex);
      mHeld.emplace_back(context, Text(*request));
    });
    mServer->Register(MessageId(kBig), [](const auto& context, const auto& request) {
      context->mTimeout = 0;
      Reply(context, kBig, BigText(std::stoul(Text(*request))));
    });
    mServer->Register(MessageId(kBigOwned), [](const auto& context, const auto& request) {
      auto* text = new std::string(BigText(std::stoul(Text(*request))));
      Message reply{MessageId(kBigOwned)};
      reply.Bl().emplace_back(text->data(), text->size(), [text](void*) { delete text; });
      Server::Reply(context, &reply, nullptr);
    });
    mServer->Register(MessageId(kThrow), [](const auto&, const auto& request) {
      if (Text(*request) == "throw") {
        throw std::runtime_error("broken handler");
      }
    });
    ASSERT_TRUE(mServer->Start("127.0.0.1", 0)) << Server::mLastErrorMessage;
  }

  /// A raw connection with both greetings behind it.
  RawSocket Open(int receiveBuffer = 0) {
    RawSocket socket = RawSocket::Connect(mServer->Port(), receiveBuffer);
    EXPECT_TRUE(socket.Send(WireGreeting(1 << 30)));
    EXPECT_EQ(socket.Receive(16).substr(0, 6), "VYNR" + Wire(std::uint16_t{1}));
    return socket;
  }
  /// A connection with `count` requests that are not answered until the test does it.
  RawSocket OpenHeld(std::size_t count = 1) {
    const std::size_t before = HeldCount();
    RawSocket socket = Open();
    for (std::size_t i = 0; i < count; ++i) {
      socket.Send(WireHeader(1, i, kHold) + std::to_string(i));
    }
    EXPECT_TRUE(WaitUntil([&] { return HeldCount() == before + count; }));
    return socket;
  }
  void ExpectServes() {
    RawSocket socket = Open();
    socket.Send(WireHeader(4, 1, kEcho) + "ping");
    EXPECT_EQ(socket.Receive(28), WireHeader(4, 1, kEcho) + "ping");
  }

  /// Waits for a line that holds `words`, and takes all up to then.
  bool Reports(const std::string& words) {
    std::string lines;
    return WaitUntil([&] {
      std::lock_guard lock(mMutex);
      lines += std::exchange(mReports, "");
      return lines.find(words) != std::string::npos;
    });
  }
  std::size_t HeldCount() {
    std::lock_guard lock(mMutex);
    return mHeld.size();
  }
  /// Takes the oldest request that is held.
  Held TakeHeld() {
    std::lock_guard lock(mMutex);
    Held held = std::move(mHeld.front());
    mHeld.erase(mHeld.begin());
    return held;
  }

  std::unique_ptr<Server> mServer;
  std::mutex mMutex;  // guards what follows
  std::string mReports;
  std::vector<Held> mHeld;
};

TEST_F(RpcServer, BytesOnTheWire) {
  ServerOptions options;
  options.mMaxFrameLength = 77777;
  Start(options);
  RawSocket socket = RawSocket::Connect(mServer->Port());
  EXPECT_EQ(socket.Receive(16), "VYNR" + Wire(std::uint16_t{1}, std::uint16_t{0}, 0, 77777U));
  socket.Send(WireGreeting());
  for (const std::uint32_t id : {kEcho, kQuickEcho}) {
    const std::string rest = Wire(5U, std::uint64_t{0x1122334455667788}, id, 0);
    for (const std::string& piece : {std::string("VYN"), "F" + rest + "he", std::string("llo")}) {
      socket.Send(piece);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_EQ(socket.Receive(29), "VYNF" + rest + "hello");
  }
  const std::string longest = WireHeader(77777, 3, kEcho) + std::string(77777, 'l');
  for (const std::string& frame : {WireHeader(0, 3, kQuickEcho), longest}) {
    socket.Send(frame);
    EXPECT_EQ(socket.Receive(frame.size()), frame);
  }
}

TEST_F(RpcServer, BadBytesEndTheirOwnConnectionOnly) {
  ServerOptions options;
  options.mMaxFrameLength = 1000;
  Start(options);
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  const auto before = descriptors();
  for (const test::Peer& peer : test::Peers("server", {{"greeting", WireGreeting()}})) {
    SCOPED_TRACE(peer.name);
    RawSocket socket = RawSocket::Connect(mServer->Port());
    socket.Receive(16);
    peer.Play(socket);
    EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
    EXPECT_TRUE(Reports("127.0.0.1:"));
    ExpectServes();
  }
  EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 0 && descriptors() == before; }));
}

TEST_F(RpcServer, PipelinedRequestsAreAllAnswered) {
  ServerOptions options;
  options.mMaxPendingCalls = 4;
  Start(options);
  // Four are held, and the rest waits in the socket.
  RawSocket socket = OpenHeld(4);
  std::string requests;
  std::map<std::uint64_t, std::string> expected;
  std::map<std::uint64_t, std::string> replies;
  for (std::uint64_t call = 0; call < 300; ++call) {
    expected[call] = std::string(call * 7 % 400, static_cast<char>('a' + call % 26));
    requests += WireHeader(static_cast<std::uint32_t>(expected[call].size()), call,
                           call % 2 == 0 ? kEcho : kQuickEcho) +
                expected[call];
  }
  ASSERT_TRUE(socket.Send(requests));
  EXPECT_FALSE(socket.Readable(100));
  while (HeldCount() > 0) {
    Reply(TakeHeld().first, kHold, "");
  }
  for (std::size_t count = 0; count < expected.size() + 4; ++count) {
    const std::string header = socket.Receive(24);
    ASSERT_EQ(header.size(), 24U);
    RpcFrameHeader reply;
    std::memcpy(&reply, header.data(), sizeof(reply));
    const std::string body = socket.Receive(reply.mLength);
    if (reply.mId != kHold) {
      replies[reply.mCall] = body;
    }
  }
  EXPECT_EQ(replies, expected);
}

TEST_F(RpcServer, HandlersThatDoNotAnswer) {
  Start();
  RawSocket socket = Open();
  socket.Send(WireHeader(4, 1, kThrow) + "drop" + WireHeader(5, 2, kThrow) + "throw" + WireHeader(2, 3, 999) +
              "no");
  std::set<std::string> replies;
  for (int i = 0; i < 3; ++i) {
    replies.insert(socket.Receive(24));
  }
  EXPECT_EQ(replies, (std::set<std::string>{WireHeader(0, 1, kThrow, -5), WireHeader(0, 2, kThrow, -5),
                                            WireHeader(0, 3, 999, -6)}));
  EXPECT_TRUE(Reports("broken handler"));
}

TEST_F(RpcServer, RepliesFromAnyThreadOnceAndLate) {
  ServerOptions options;
  options.mStopTimeout = 100;  // a call is left open below
  Start(options);
  RawSocket socket = OpenHeld(3);
  auto [context, text] = TakeHeld();
  EXPECT_THAT(context->PeerAddress(), HasSubstr("127.0.0.1:"));
  EXPECT_EQ(context->GetServer(), mServer.get());
  std::thread([&] { EXPECT_TRUE(Reply(context, kHold, "one")); }).join();
  EXPECT_EQ(socket.Receive(24 + 3).substr(24), "one");
  EXPECT_FALSE(Reply(context, kHold, "again"));
  EXPECT_EQ(context->mStatus, -15);

  // A reply longer than the client takes becomes a status of its own.
  RawSocket narrow = RawSocket::Connect(mServer->Port());
  narrow.Send(WireGreeting(4) + WireHeader(5, 1, kEcho) + "12345");
  EXPECT_EQ(narrow.Receive(16 + 24).substr(16), WireHeader(0, 1, kEcho, -9));

  socket.Reset();
  ASSERT_TRUE(WaitUntil([&] { return mServer->Connections() == 1; }));
  context = TakeHeld().first;
  EXPECT_FALSE(Reply(context, kHold, "nobody there"));
  EXPECT_EQ(context->mStatus, -19);

  // The last context outlives its server.
  context = TakeHeld().first;
  mServer.reset();
  EXPECT_FALSE(Reply(context, kHold, "no server"));
  EXPECT_EQ(context->mStatus, -19);
}

TEST_F(RpcServer, ConnectionsAboveTheLimitAreToldSo) {
  ServerOptions options;
  options.mMaxConnections = 2;
  Start(options);
  RawSocket first = Open();
  RawSocket second = Open();
  RawSocket third = RawSocket::Connect(mServer->Port());
  EXPECT_EQ(third.Receive(17), WireGreeting(0, -11));
  EXPECT_TRUE(Reports("turned away"));
  first.Close();
  ASSERT_TRUE(WaitUntil([&] { return mServer->Connections() == 1; }));
  ExpectServes();
}

TEST_F(RpcServer, WhoTakesTooLongIsLetGo) {
  const std::string frame = WireHeader(1000, 1, kEcho) + std::string(1000, 'x');
  const struct {
    std::int64_t ServerOptions::*mTime;
    std::string mAtOnce;
    std::string mDrip;  // a byte each 20 ms
  } kCases[] = {{&ServerOptions::mHandshakeTimeout, "", ""},
                {&ServerOptions::mHandshakeTimeout, "", WireGreeting()},
                {&ServerOptions::mFrameTimeout, WireGreeting(), frame},
                {&ServerOptions::mFrameTimeout, WireGreeting(1 << 30) + BigRequest(kBig, 40000000), ""}};
  for (const auto& one : kCases) {
    ServerOptions options;
    options.*one.mTime = 150;
    Start(options);
    RawSocket slow = RawSocket::Connect(mServer->Port(), 4096);
    slow.Send(one.mAtOnce);
    std::size_t sent = 0;
    EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 1; }));
    while (sent < one.mDrip.size() && mServer->Connections() == 1 && slow.Send(one.mDrip.substr(sent, 1))) {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ++sent;
    }
    EXPECT_TRUE(sent == 0 || sent < one.mDrip.size());
    EXPECT_TRUE(Reports("127.0.0.1:"));
    EXPECT_TRUE(WaitUntil([&] { return mServer->Connections() == 0; }));
  }
}

TEST_F(RpcServer, AnIdleConnectionEndsAndOneWithACallStays) {
  ServerOptions options;
  options.mIdleTimeout = 400;
  Start(options);
  RawSocket waiting = OpenHeld();
  RawSocket idle = Open();
  EXPECT_TRUE(idle.EndsWithin(RawSocket::kPatience));
  const auto answered = net::Deadline::Clock::now();
  EXPECT_TRUE(Reply(TakeHeld().first, kHold, "still here"));
  EXPECT_EQ(waiting.Receive(34).substr(24), "still here");
  // Its idle time begins with the answer, give or take the time between two looks of the server.
  EXPECT_TRUE(waiting.EndsWithin(RawSocket::kPatience));
  EXPECT_GE(net::Deadline::Clock::now() - answered, std::chrono::milliseconds(options.mIdleTimeout / 2));
}

TEST_F(RpcServer, BytesThatAreHeldAreBounded) {
  ServerOptions options;
  options.mMaxPendingBytes = 1000;
  Start(options);
  RawSocket first = Open();
  RawSocket second = Open();
  RawSocket stuck = Open(4096);
  const std::string request = WireHeader(100, 1, kEcho) + std::string(100, 's');
  const auto secondWaits = [&] {
    return WaitUntil([&] {
      second.Send(request);
      return !second.Readable(100) || second.Receive(request.size()) != request;
    });
  };

  // A request without its answer.
  first.Send(WireHeader(1200, 1, kHold) + std::string(1200, 'f'));
  ASSERT_TRUE(WaitUntil([&] { return HeldCount() == 1; }));
  EXPECT_TRUE(secondWaits());
  EXPECT_TRUE(Reports("new requests have to wait"));
  EXPECT_TRUE(Reply(TakeHeld().first, kHold, ""));
  EXPECT_EQ(second.Receive(request.size()), request);
  EXPECT_EQ(first.Receive(24), WireHeader(0, 1, kHold));

  // A request that has only begun; what has begun can end.
  first.Send(WireHeader(200000, 2, kEcho) + "x");
  EXPECT_TRUE(secondWaits());
  first.Send(std::string(199999, 'x'));
  EXPECT_EQ(first.Receive(24 + 200000), WireHeader(200000, 2, kEcho) + std::string(200000, 'x'));
  EXPECT_EQ(second.Receive(request.size()), request);
  first.Send(WireHeader(200000, 3, kEcho) + "x");
  EXPECT_TRUE(secondWaits());
  first.Reset();
  EXPECT_EQ(second.Receive(request.size()), request);

  // Replies that nobody reads.
  const RawSocket late = OpenHeld();
  stuck.Send(BigRequest(kBig, 40000000));
  ASSERT_TRUE(stuck.Readable(RawSocket::kPatience));
  EXPECT_TRUE(secondWaits());
  Open();  // new connections come in all the same
  const auto context = TakeHeld().first;
  EXPECT_FALSE(Reply(context, kHold, std::string(40000000, 'l')));
  EXPECT_EQ(context->mStatus, -19);
  EXPECT_TRUE(Reports("fill the limit of bytes"));
  stuck.Close();
  EXPECT_EQ(second.Receive(request.size()), request);
}

TEST_F(RpcServer, ASlowReaderDelaysNobodyElse) {
  ServerOptions options;
  options.mIoThreads = 1;
  options.mWorkerThreads = 1;
  Start(options);
  constexpr std::size_t kSize = std::size_t{24} << 20;
  for (const std::uint32_t id : {kBig, kBigOwned}) {
    RawSocket slow = Open(4096);
    slow.Send(BigRequest(id, kSize));
    ASSERT_TRUE(slow.Readable(RawSocket::kPatience));
    ExpectServes();
    EXPECT_TRUE(slow.Receive(24 + kSize) == WireHeader(kSize, 1, id) + BigText(kSize));
  }
}

TEST_F(RpcServer, StopLetsRunningCallsAnswer) {
  Start();
  RawSocket socket = OpenHeld();
  std::atomic<int> stopped{0};
  {
    const auto stop = [&] {
      mServer->Stop();
      ++stopped;
    };
    const std::jthread first(stop);
    const std::jthread second(stop);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(stopped, 0);
    socket.Send(WireHeader(0, 2, kEcho));  // comes too late
    EXPECT_TRUE(Reply(TakeHeld().first, kHold, "done"));
  }
  EXPECT_EQ(socket.Receive(29), WireHeader(4, 0, kHold) + "done");
  EXPECT_THROW(RawSocket::Connect(mServer->Port()), std::runtime_error);
}

TEST_F(RpcServer, StopsWhileConnectionsCome) {
  for (int round = 0; round < 10; ++round) {
    Start();
    std::atomic<int> made{0};
    std::vector<std::jthread> callers;
    for (int i = 0; i < 4; ++i) {
      callers.emplace_back([&made, port = mServer->Port()] {
        try {
          for (std::vector<RawSocket> all; all.size() < 200; ++made) {
            all.push_back(RawSocket::Connect(port));
          }
        } catch (const std::runtime_error&) {
          ++made;  // nobody listens any more
        }
      });
    }
    EXPECT_TRUE(WaitUntil([&] { return made > 20 * round; }));
    mServer->Stop();
    EXPECT_EQ(mServer->Connections(), 0U);
  }
}

TEST_F(RpcServer, StopDoesNotWaitForEver) {
  ServerOptions options;
  options.mStopTimeout = 100;
  Start(options);
  RawSocket socket = OpenHeld();
  mServer->Stop();
  EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
  EXPECT_FALSE(Reply(TakeHeld().first, kHold, "too late"));
}

TEST_F(RpcServer, StartsThatFail) {
  Start();
  EXPECT_FALSE(mServer->Start("127.0.0.1", 0));
  const auto refused = [](const char* words, void (*change)(ServerOptions & options),
                          const char* address = "127.0.0.1", unsigned short port = 0) {
    ServerOptions options;
    change(options);
    Server server(options);
    EXPECT_FALSE(server.Start(address, port)) << words;
    EXPECT_THAT(Server::mLastErrorMessage, HasSubstr(words));
  };
  refused(
      "listen", [](auto&) {}, "127.0.0.1", mServer->Port());
  refused(
      "localhost", [](auto&) {}, "localhost");
  refused("threads", [](auto& options) { options.mIoThreads = 0; });
  refused("limit", [](auto& options) { options.mMaxFrameLength = std::size_t{1} << 31; });
  refused("time", [](auto& options) { options.mFrameTimeout = 0; });
  refused("auth.type", [](auto& options) { options.mAuthentication = true; });
  refused("OpenSSL", [](auto& options) { options.mTls = true; });
}

}  // namespace
}  // namespace vyn::rpc
