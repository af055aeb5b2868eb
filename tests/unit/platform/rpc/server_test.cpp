#include "platform/rpc/server/server.h"

#include "platform/net/deadline.h"
#include "platform/rpc/client/client.h"
#include "support/raw_socket.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace vyn::rpc {
namespace {

using test::Eventually;
using test::RawListener;
using test::RawSocket;
using test::Wire;
using test::WireGreeting;
using test::WireHeader;
using testing::HasSubstr;

constexpr std::uint32_t kEcho = 1;       // answers with what came, as a handler that may block
constexpr std::uint32_t kQuickEcho = 2;  // the same as a quick one
constexpr std::uint32_t kHold = 3;       // answers when the test lets it
constexpr std::uint32_t kBig = 4;        // answers with as many bytes as the request says
constexpr std::uint32_t kBigOwned = 5;   // the same from memory that the reply owns
constexpr std::uint32_t kDrop = 6;
constexpr std::uint32_t kThrow = 7;

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

/// What byte `i` of a big reply is.
char Pattern(std::size_t i) { return static_cast<char>(i * 31 + i / 251); }

std::string BigText(std::size_t size) {
  std::string text(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    text[i] = Pattern(i);
  }
  return text;
}

class RpcServer : public testing::Test {
 protected:
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
      const std::string text = BigText(std::stoul(Text(*request)));
      context->mTimeout = 0;
      Reply(context, kBig, text);
    });
    mServer->Register(MessageId(kBigOwned), [](const auto& context, const auto& request) {
      auto* text = new std::string(BigText(std::stoul(Text(*request))));
      Message reply{MessageId(kBigOwned)};
      reply.Bl().emplace_back(text->data(), text->size(), [text](void*) { delete text; });
      Server::Reply(context, &reply, nullptr);
    });
    mServer->Register(MessageId(kDrop), [](const auto&, const auto&) {});
    mServer->Register(MessageId(kThrow),
                      [](const auto&, const auto&) { throw std::runtime_error("broken handler"); });
    ASSERT_TRUE(mServer->Start("127.0.0.1", 0)) << Server::mLastErrorMessage;
  }

  /// A raw connection with both greetings behind it.
  RawSocket Open(int receiveBuffer = 0) {
    RawSocket socket = RawSocket::Connect(mServer->Port(), receiveBuffer);
    EXPECT_TRUE(socket.Send(WireGreeting(1 << 30)));
    EXPECT_EQ(socket.Receive(16).substr(0, 6), "VYNR" + Wire(std::uint16_t{1}));
    return socket;
  }

  void ExpectServes() {
    RawSocket socket = Open();
    socket.Send(WireHeader(4, 1, kEcho) + "ping");
    EXPECT_EQ(socket.Receive(28), WireHeader(4, 1, kEcho) + "ping");
  }

  std::string Reports() {
    std::lock_guard lock(mMutex);
    return mReports;
  }
  std::size_t HeldCount() {
    std::lock_guard lock(mMutex);
    return mHeld.size();
  }
  /// Takes the oldest request that is held.
  std::pair<std::shared_ptr<ServerContext>, std::string> TakeHeld() {
    std::lock_guard lock(mMutex);
    auto held = std::move(mHeld.front());
    mHeld.erase(mHeld.begin());
    return held;
  }

  std::unique_ptr<Server> mServer;
  std::mutex mMutex;  // guards what follows
  std::string mReports;
  std::vector<std::pair<std::shared_ptr<ServerContext>, std::string>> mHeld;
};

TEST_F(RpcServer, BytesOnTheWire) {
  ServerOptions options;
  options.mMaxFrameLength = 77777;
  Start(options);
  RawSocket socket = RawSocket::Connect(mServer->Port());
  EXPECT_EQ(socket.Receive(16), "VYNR" + Wire(std::uint16_t{1}, std::uint16_t{0}, 0, 77777U));
  socket.Send(WireGreeting());
  for (const std::uint32_t id : {kEcho, kQuickEcho}) {
    // The frame arrives in three pieces.
    socket.Send("VYN");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    socket.Send("F" + Wire(5U, std::uint64_t{0x1122334455667788}, id, 0) + "he");
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    socket.Send("llo");
    EXPECT_EQ(socket.Receive(29), "VYNF" + Wire(5U, std::uint64_t{0x1122334455667788}, id, 0) + "hello");
  }
  socket.Send(WireHeader(0, 3, kQuickEcho));
  EXPECT_EQ(socket.Receive(24), WireHeader(0, 3, kQuickEcho));
}

TEST_F(RpcServer, BadBytesEndTheirOwnConnectionOnly) {
  ServerOptions options;
  options.mMaxFrameLength = 1000;
  Start(options);
  const struct {
    const char* mName;
    std::string mBytes;
    const char* mReport;
    bool mHalf;  // the peer has to close first
  } kCases[] = {
      {"another protocol", "GET / HTTP/1.1\r\n\r\n", "no greeting of this protocol", false},
      {"TLS", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\x00\x00\x00\x00\x00\x00", 17),
       "no greeting of this protocol", false},
      {"another version", WireGreeting(1, 0, 7), "another version", false},
      {"garbage", WireGreeting() + std::string(64, 'g'), "does not begin with its mark", false},
      {"too long", WireGreeting() + WireHeader(1001, 1, kEcho), "longer than the limit", false},
      {"4 GiB", WireGreeting() + WireHeader(0xffffffff, 1, kEcho), "longer than the limit", false},
      {"wide id", WireGreeting() + WireHeader(1, 1, kEcho + 1024) + "x", "more than 10 bits", false},
      {"status and body", WireGreeting() + WireHeader(1, 1, kEcho, -5) + "x", "both a status and a body",
       false},
      {"end in a header", WireGreeting() + "VYNF", "middle of a frame", true},
      {"end in a body", WireGreeting() + WireHeader(900, 1, kEcho) + "x", "middle of a frame", true},
  };
  for (const auto& one : kCases) {
    SCOPED_TRACE(one.mName);
    RawSocket socket = RawSocket::Connect(mServer->Port());
    socket.Receive(16);
    EXPECT_TRUE(socket.Send(one.mBytes));
    if (one.mHalf) {
      shutdown(socket.Descriptor(), SHUT_WR);
    }
    EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
    EXPECT_TRUE(Eventually([&] { return Reports().find(one.mReport) != std::string::npos; })) << Reports();
    EXPECT_THAT(Reports(), HasSubstr("127.0.0.1:"));
    ExpectServes();
    std::lock_guard lock(mMutex);
    mReports.clear();
  }
  EXPECT_TRUE(Eventually([&] { return mServer->Connections() == 0; }));
}

TEST_F(RpcServer, PipelinedRequestsAreAllAnswered) {
  ServerOptions options;
  options.mMaxPendingCalls = 4;
  Start(options);
  RawSocket socket = Open();
  std::string requests;
  constexpr std::uint64_t kCalls = 300;
  for (std::uint64_t call = 0; call < kCalls; ++call) {
    const std::string body(call * 7 % 400, static_cast<char>('a' + call % 26));
    requests +=
        WireHeader(static_cast<std::uint32_t>(body.size()), call, call % 2 == 0 ? kEcho : kQuickEcho) + body;
  }
  ASSERT_TRUE(socket.Send(requests));
  std::map<std::uint64_t, std::string> replies;
  while (replies.size() < kCalls) {
    const std::string header = socket.Receive(24);
    ASSERT_EQ(header.size(), 24U);
    std::uint32_t length;
    std::uint64_t call;
    std::memcpy(&length, header.data() + 4, 4);
    std::memcpy(&call, header.data() + 8, 8);
    replies[call] = socket.Receive(length);
  }
  for (const auto& [call, body] : replies) {
    EXPECT_EQ(body, std::string(call * 7 % 400, static_cast<char>('a' + call % 26)));
  }
}

TEST_F(RpcServer, HandlersThatDoNotAnswer) {
  Start();
  const struct {
    std::uint32_t mId;
    std::int32_t mStatus;
  } kCases[] = {{kDrop, -5}, {kThrow, -5}, {999, -6}};
  RawSocket socket = Open();
  for (const auto& one : kCases) {
    socket.Send(WireHeader(2, 8, one.mId) + "hi");
    EXPECT_EQ(socket.Receive(24), WireHeader(0, 8, one.mId, one.mStatus));
  }
  EXPECT_THAT(Reports(), HasSubstr("the handler of message 7 failed: broken handler"));
  ExpectServes();
}

TEST_F(RpcServer, RepliesFromAnyThreadOnceAndLate) {
  ServerOptions options;
  options.mStopTimeout = 100;  // a call is left open below
  Start(options);
  RawSocket socket = Open();
  for (int i = 0; i < 3; ++i) {
    socket.Send(WireHeader(1, static_cast<std::uint64_t>(i), kHold) + std::to_string(i));
  }
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 3; }));
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
  ASSERT_TRUE(Eventually([&] { return mServer->Connections() == 1; }));
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
  Client client("127.0.0.1", mServer->Port(), {});
  ClientContext context;
  context.mTimeout = RawSocket::kPatience;
  Message request{MessageId(kEcho)};
  Message response{MessageId(kEcho)};
  EXPECT_FALSE(client.SyncCall(&context, &request, &response, nullptr));
  EXPECT_EQ(context.mStatus, -11);
  EXPECT_THAT(Reports(), HasSubstr("turned away, 2 connections are open"));
  first.Close();
  ASSERT_TRUE(Eventually([&] { return mServer->Connections() == 1; }));
  EXPECT_TRUE(client.SyncCall(&context, &request, &response, nullptr)) << context.mStatus;
}

TEST_F(RpcServer, TheGreetingHasItsTime) {
  ServerOptions options;
  options.mHandshakeTimeout = 150;
  Start(options);
  RawSocket silent = RawSocket::Connect(mServer->Port());
  silent.Receive(16);
  EXPECT_TRUE(silent.EndsWithin(RawSocket::kPatience));
  EXPECT_TRUE(Eventually([&] { return Reports().find("no greeting in time") != std::string::npos; }));
}

TEST_F(RpcServer, AFrameHasItsTime) {
  ServerOptions options;
  options.mFrameTimeout = 150;
  Start(options);
  RawSocket slow = Open();
  int sent = 0;
  for (const char byte : WireHeader(1000, 1, kEcho) + std::string(1000, 'x')) {
    if (!slow.Send(std::string(1, byte)) || slow.Readable(20)) {
      break;
    }
    ++sent;
  }
  EXPECT_LT(sent, 1000);
  EXPECT_TRUE(
      Eventually([&] { return Reports().find("a frame did not arrive in time") != std::string::npos; }));
}

TEST_F(RpcServer, AnIdleConnectionEndsAndOneWithACallStays) {
  ServerOptions options;
  options.mIdleTimeout = 400;
  Start(options);
  RawSocket waiting = RawSocket::Connect(mServer->Port());
  waiting.Send(WireGreeting(1 << 30) + WireHeader(0, 1, kHold));
  waiting.Receive(16);
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 1; }));
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
  RawSocket late = Open(4096);
  const std::string request = WireHeader(100, 1, kEcho) + std::string(100, 's');
  const auto secondWaits = [&] {
    return Eventually([&] {
      second.Send(request);
      return !second.Readable(100) || second.Receive(request.size()) != request;
    });
  };

  // A request without its answer.
  first.Send(WireHeader(1200, 1, kHold) + std::string(1200, 'f'));
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 1; }));
  EXPECT_TRUE(secondWaits());
  EXPECT_TRUE(Eventually([&] { return Reports().find("new requests have to wait") != std::string::npos; }));
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
  late.Send(WireHeader(0, 1, kHold));
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 1; }));
  stuck.Send(WireHeader(8, 1, kBig) + "40000000");
  ASSERT_TRUE(stuck.Readable(RawSocket::kPatience));
  EXPECT_TRUE(secondWaits());
  Open();  // new connections come in all the same
  const auto context = TakeHeld().first;
  EXPECT_FALSE(Reply(context, kHold, std::string(40000000, 'l')));
  EXPECT_EQ(context->mStatus, -19);
  EXPECT_TRUE(Eventually([&] { return Reports().find("fill the limit of bytes") != std::string::npos; }));
  stuck.Close();
  EXPECT_EQ(second.Receive(request.size()), request);
}

TEST_F(RpcServer, ASlowReaderDelaysNobodyElse) {
  ServerOptions options;
  options.mIoThreads = 1;
  options.mWorkerThreads = 1;
  Start(options);
  constexpr std::size_t kSize = std::size_t{24} << 20;
  const std::string number = std::to_string(kSize);
  for (const std::uint32_t id : {kBig, kBigOwned}) {
    RawSocket slow = Open(4096);
    slow.Send(WireHeader(static_cast<std::uint32_t>(number.size()), 1, id) + number);
    ASSERT_TRUE(slow.Readable(RawSocket::kPatience));
    ExpectServes();
    EXPECT_EQ(slow.Receive(24), WireHeader(kSize, 1, id));
    EXPECT_EQ(slow.Receive(kSize), BigText(kSize));
  }
}

TEST_F(RpcServer, AReaderThatNeverReadsIsLetGo) {
  ServerOptions options;
  options.mFrameTimeout = 200;
  Start(options);
  RawSocket stuck = Open(4096);
  stuck.Send(WireHeader(8, 1, kBig) + "40000000");
  EXPECT_TRUE(Eventually([&] { return Reports().find("does not take its replies") != std::string::npos; }));
  EXPECT_TRUE(Eventually([&] { return mServer->Connections() == 0; }));
}

TEST_F(RpcServer, StopLetsRunningCallsAnswer) {
  Start();
  RawSocket socket = Open();
  socket.Send(WireHeader(0, 1, kHold));
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 1; }));
  std::atomic<int> stopped{0};
  std::vector<std::thread> stoppers;
  for (int i = 0; i < 2; ++i) {
    stoppers.emplace_back([&] {
      mServer->Stop();
      ++stopped;
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_EQ(stopped, 0);
  socket.Send(WireHeader(0, 2, kEcho));  // comes too late
  EXPECT_TRUE(Reply(TakeHeld().first, kHold, "done"));
  for (std::thread& stopper : stoppers) {
    stopper.join();
  }
  EXPECT_EQ(socket.Receive(28), WireHeader(4, 1, kHold) + "done");
  EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
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
    EXPECT_TRUE(Eventually([&] { return made > 20 * round; }));
    mServer->Stop();
    EXPECT_EQ(mServer->Connections(), 0U);
  }
}

TEST_F(RpcServer, StopDoesNotWaitForEver) {
  ServerOptions options;
  options.mStopTimeout = 100;
  Start(options);
  RawSocket socket = Open();
  socket.Send(WireHeader(0, 1, kHold));
  ASSERT_TRUE(Eventually([&] { return HeldCount() == 1; }));
  mServer->Stop();
  EXPECT_TRUE(socket.EndsWithin(RawSocket::kPatience));
  EXPECT_FALSE(Reply(TakeHeld().first, kHold, "too late"));
}

TEST_F(RpcServer, StartsThatFail) {
  Start();
  EXPECT_FALSE(mServer->Start("127.0.0.1", 0));
  EXPECT_THAT(Server::mLastErrorMessage, HasSubstr("starts once"));
  const struct {
    const char* mAddress;
    unsigned short mPort;
    std::function<void(ServerOptions&)> mChange;
    const char* mWords;
  } kCases[] = {
      {"127.0.0.1", mServer->Port(), [](auto&) {}, "cannot listen on 127.0.0.1:"},
      {"localhost", 0, [](auto&) {}, "\"localhost\" is no IP address"},
      {"127.0.0.1", 0, [](auto& o) { o.mIoThreads = 0; }, "threads"},
      {"127.0.0.1", 0, [](auto& o) { o.mMaxFrameLength = std::size_t{1} << 31; }, "limit"},
      {"127.0.0.1", 0,
       [](auto& o) {
         o.mAuthentication = true;
         o.mSecurity.emplace("auth.type", "KERBEROS");
       },
       "auth.type \"KERBEROS\""},
      {"127.0.0.1", 0, [](auto& o) { o.mTls = true; }, "no OpenSSL libraries are set"},
  };
  for (const auto& one : kCases) {
    ServerOptions options;
    one.mChange(options);
    Server server(options);
    EXPECT_FALSE(server.Start(one.mAddress, one.mPort));
    EXPECT_THAT(Server::mLastErrorMessage, HasSubstr(one.mWords));
  }
}

TEST_F(RpcServer, AThousandConnectionsAtOnce) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  if (limit.rlim_max < 3000) {
    GTEST_SKIP() << "this process may open only " << limit.rlim_max << " descriptors";
  }
  limit.rlim_cur = std::max<rlim_t>(limit.rlim_cur, 3000);
  setrlimit(RLIMIT_NOFILE, &limit);
  const auto descriptors = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  Start();
  const auto before = descriptors();
  {
    std::vector<std::unique_ptr<Client>> clients;
    for (int round = 0; round < 2; ++round) {
      for (int i = 0; i < 1000; ++i) {
        if (round == 0) {
          clients.push_back(
              std::make_unique<Client>("127.0.0.1", mServer->Port(), std::map<std::string, std::string>()));
        }
        ClientContext context;
        context.mTimeout = RawSocket::kPatience;
        std::string text = std::to_string(i);
        Message request{MessageId(kQuickEcho)};
        Message response{MessageId(kQuickEcho)};
        request.Bl().emplace_back(text.data(), text.size(), nullptr);
        ASSERT_TRUE(clients[static_cast<std::size_t>(i)]->SyncCall(&context, &request, &response, nullptr));
        ASSERT_EQ(Text(response), text);
      }
      EXPECT_EQ(mServer->Connections(), 1000U);
    }
  }
  EXPECT_TRUE(Eventually([&] { return mServer->Connections() == 0 && descriptors() == before; }));
}

}  // namespace
}  // namespace vyn::rpc
