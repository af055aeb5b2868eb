// What strangers can send to a node's doors, byte by byte, and what becomes of them.

#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"
#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"
#include "support/fabric.h"
#include "support/link_tls.h"
#include "support/raw_socket.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <cstring>
#include <fstream>
#include <optional>

namespace vyn::fabric {
namespace {

using test::FabricPlace;

const std::string kHelloBytes(
    "VBM1"
    "\x01\0"
    "\0\0"
    "\0\0\0\0"
    "\0\0\0\0"
    "\x08\0\0\0"
    "\0\0\0\0"
    "\x01\0"
    "\x01\0"
    "\xff\xff\xff\xff",
    32);

/// A raw conversation with a door.
class Raw {
 public:
  explicit Raw(std::unique_ptr<SocketStream> stream)
      : mSocket(stream->Socket()), mStream(std::move(stream)) {}

  void Send(std::string bytes) {
    iovec part{bytes.data(), bytes.size()};
    mStream->Send(&part, 1, net::Deadline::After(std::chrono::seconds(10)), -1);
  }
  /// Returns: `length` bytes, fewer when the node closed the connection before.
  std::string Receive(std::size_t length) {
    std::string bytes(length, '\0');
    std::size_t got = 0;
    for (std::size_t count = 0; got < length; got += count) {
      const net::IoStatus status = mStream->Receive(bytes.data() + got, length - got, count,
                                                    net::Deadline::After(std::chrono::seconds(30)));
      if (status != net::IoStatus::kOk) {
        mClosed = status == net::IoStatus::kClosed || status == net::IoStatus::kReset;
        break;
      }
    }
    return bytes.substr(0, got);
  }
  /// Waits until bytes have arrived, and leaves them where they are.
  bool HasArrived() {
    pollfd waited{mSocket, POLLIN, 0};
    return ::poll(&waited, 1, 30000) == 1;
  }
  /// Whether the node closes the connection, after `most` bytes at the utmost.
  bool Closes(std::size_t most) { return Receive(most + 1).size() <= most && mClosed; }

 private:
  int mSocket;
  std::unique_ptr<ByteStream> mStream;
  bool mClosed = false;
};

std::string Frame(FabricOperation operation, std::uint32_t sequence, const std::string& head,
                  std::uint32_t headLength, std::uint32_t dataLength, std::uint16_t flags = 0,
                  std::int32_t result = 0) {
  const FabricFrameHeader header{
      kFrameMagic, static_cast<std::uint16_t>(operation), flags, sequence, result, headLength, dataLength};
  return std::string(reinterpret_cast<const char*>(&header), sizeof(header)) + head;
}
std::string Frame(FabricOperation operation, std::uint32_t sequence, const std::string& head) {
  return Frame(operation, sequence, head, static_cast<std::uint32_t>(head.size()), 0);
}
std::string Packed(const std::vector<std::string>& texts) {
  std::string bytes;
  for (const std::string& text : texts) {
    bytes += static_cast<char>(text.size() & 0xffU);
    bytes += static_cast<char>(text.size() >> 8U);
    bytes += text;
  }
  return bytes;
}

class DoorsTest : public testing::Test {
 protected:
  void Start(const std::function<void(FabricNodeOptions&)>& change = nullptr) {
    FabricNodeOptions options = mPlace.Options();
    if (change != nullptr) {
      change(options);
    }
    std::string error;
    ASSERT_TRUE(mNode.Start(options, error)) << error;
    ASSERT_EQ(mNode.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mNode.Allocate("app", 10, mId), 0);
  }
  Raw Link() {
    return Raw(DialLink("127.0.0.1", mNode.LinkPort(), net::Deadline::After(std::chrono::seconds(5))));
  }
  /// \param trust of a client.
  Raw SecuredLink(const tls::TlsContext::SecurityMap& trust) {
    std::string text;
    const net::Deadline deadline = net::Deadline::After(std::chrono::seconds(30));
    auto socket = DialLink("127.0.0.1", mNode.LinkPort(), deadline);
    auto tls = tls::TlsContext::ForClient(trust, text)->NewStream(socket->Socket());
    EXPECT_EQ(socket->StartTls(std::move(tls), deadline), net::IoStatus::kOk);
    return Raw(std::move(socket));
  }
  Raw Broker() {
    int error = 0;
    return Raw(ConnectToBroker(mPlace.Home(), net::Deadline::After(std::chrono::seconds(5)), error));
  }
  void WaitFor(std::uint64_t FabricNodeStats::*number, const std::function<bool(std::uint64_t)>& wanted) {
    for (int tries = 0; tries < 6000 && !wanted(mNode.Stats().*number); ++tries) {
      ::poll(nullptr, 0, 5);
    }
    EXPECT_TRUE(wanted(mNode.Stats().*number)) << mNode.Stats().*number;
  }
  void WaitForConnections(std::uint64_t count) {
    WaitFor(&FabricNodeStats::connections, [count](std::uint64_t now) { return now == count; });
  }

  FabricPlace mPlace{7};
  FabricNode mNode;
  std::string mId;
};

TEST_F(DoorsTest, AHelloAndAStatAreTheseBytes) {
  Start();
  for (const bool link : {true, false}) {
    Raw raw = link ? Link() : Broker();
    raw.Send(kHelloBytes);
    EXPECT_EQ(raw.Receive(26), std::string("VBM1"
                                           "\x01\0"
                                           "\0\0"
                                           "\0\0\0\0"
                                           "\0\0\0\0"
                                           "\x02\0\0\0"
                                           "\0\0\0\0"
                                           "\x07\0",
                                           26));
    raw.Send(std::string("VBM1"
                         "\x0a\0"
                         "\0\0"
                         "\x01\0\0\0"
                         "\0\0\0\0"
                         "\x46\0\0\0"
                         "\0\0\0\0"
                         "\x03\0app\x01\0t"
                         "\x3c\0",
                         34) +
             mId);
    EXPECT_EQ(raw.Receive(32), std::string("VBM1"
                                           "\x0a\0"
                                           "\0\0"
                                           "\x01\0\0\0"
                                           "\0\0\0\0"
                                           "\x08\0\0\0"
                                           "\0\0\0\0"
                                           "\x0a\0\0\0\0\0\0\0",
                                           32));
    raw.Send(Frame(FabricOperation::kStat, 2, Packed({"app", "wrong", mId})));
    EXPECT_EQ(raw.Receive(24), Frame(FabricOperation::kStat, 2, "", 0, 0, 0, -13));
  }
}

TEST_F(DoorsTest, WhatIsNoConversationEndsTheConnectionAndNothingElse) {
  Start();
  const std::string object = Packed({"app", "t", mId});
  const std::string u64 = std::string("\0\0\0\0\0\0\0\0", 8);
  const struct {
    const char* what;
    bool greeted;
    std::string bytes;
  } cases[] = {
      {"no hello", false, Frame(FabricOperation::kQuery, 0, "")},
      {"another magic", false, "GET / HTTP/1.1\r\nHost: node\r\n\r\n"},
      {"another version", false,
       Frame(FabricOperation::kHello, 0,
             std::string("\x02\0"
                         "\x01\0"
                         "\xff\xff\xff\xff",
                         8)) +
           "x"},
      {"a hello cut short", false, Frame(FabricOperation::kHello, 0, "\x01")},
      {"arguments over the limit", true, Frame(FabricOperation::kQuery, 1, "", kMaxHeadLength + 1, 0)},
      {"arguments of 4 GiB", true, Frame(FabricOperation::kQuery, 1, "", ~0U, 0)},
      {"data over the limit", true, Frame(FabricOperation::kWrite, 1, "", 0, kMaxDataLength + 1)},
      {"a second hello", true, Frame(FabricOperation::kHello, 1, kHelloBytes.substr(24))},
      {"a sequence number twice", true, Frame(FabricOperation::kQuery, 0, "")},
      {"an answer", true, Frame(FabricOperation::kQuery, 1, "", 0, 0, 0, -5)},
      {"flags", true, Frame(FabricOperation::kQuery, 1, "", 0, 0, 1)},
      {"no operation", true, Frame(static_cast<FabricOperation>(0), 1, "")},
      {"an unknown operation", true, Frame(static_cast<FabricOperation>(99), 1, "")},
      {"too many arguments", true, Frame(FabricOperation::kQuery, 1, "x")},
      {"too few arguments", true, Frame(FabricOperation::kStat, 1, object.substr(0, object.size() - 1))},
      {"a text beyond the end", true, Frame(FabricOperation::kStat, 1, std::string("\xff\xff", 2) + "app")},
      {"no id", true, Frame(FabricOperation::kStat, 1, Packed({"app", "t", "../../etc/passwd"}))},
      {"an id with a separator", true,
       Frame(FabricOperation::kFree, 1, Packed({"app", "t", mId.substr(0, 58) + "/."}))},
      {"more ids than are there", true,
       Frame(FabricOperation::kFreeBatch, 1,
             Packed({"app", "t"}) + std::string("\xff\xff", 2) + Packed({mId}))},
      {"ids of two owners", true,
       Frame(FabricOperation::kFreeBatch, 1,
             Packed({"app", "t"}) + std::string("\x02\0", 2) + Packed({mId, MakeObjectId(8)}))},
      {"a read longer than its transfer", true,
       Frame(FabricOperation::kRead, 1, object + u64 + u64 + std::string("\x01\0\0\0", 4))},
      {"a read longer than a frame", true,
       Frame(FabricOperation::kRead, 1, object + u64 + std::string(8, '\x7f') + std::string(4, '\x7f'))},
  };
  for (const auto& one : cases) {
    for (const bool link : {true, false}) {
      Raw raw = link ? Link() : Broker();
      if (one.greeted) {
        raw.Send(kHelloBytes);
        ASSERT_EQ(raw.Receive(26).size(), 26U) << one.what;
      }
      raw.Send(one.bytes);
      EXPECT_TRUE(raw.Closes(24)) << one.what;  // at most a refusal, then the end
    }
  }
  // A link hands out no descriptors and forwards nothing; a broker answers no questions of nodes.
  Raw door = Link();
  door.Send(kHelloBytes + Frame(FabricOperation::kStat, 1, Packed({"app", "t", MakeObjectId(8)})) +
            Frame(FabricOperation::kOpen, 2, object + std::string(1, '\0')));
  EXPECT_EQ(door.Receive(26 + 24 + 1).substr(26),
            Frame(FabricOperation::kStat, 1, "", 0, 0, 0, kBmRemoteProtocol));
  Raw broker = Broker();
  broker.Send(kHelloBytes + Frame(FabricOperation::kExist, 1, std::string("\0\0", 2)));
  EXPECT_EQ(broker.Receive(26 + 1).size(), 26U);

  std::string bytes(10, '\0');
  FabricClient client;
  ASSERT_EQ(client.Initialize(mPlace.Home().c_str(), 0), 0);
  EXPECT_EQ((test::Tenant{client, "app", "t"}.Read(mId, 0, 10)), bytes);
  EXPECT_EQ(mNode.Stats().objects, 1U);
}

TEST_F(DoorsTest, AFullDoorLetsTheIdleGoAndKeepsTheBusy) {
  Start([](FabricNodeOptions& options) {
    options.maxBrokerConnections = 3;
    options.maxLinkConnections = 100;
    options.maxConnectionsPerPeer = 2;
  });
  // The older one is in the middle of a write, as the object shows.
  std::string id;
  ASSERT_EQ(mNode.Allocate("app", 512U << 10U, id), 0);
  const std::string half(256U << 10U, 'w');
  const std::string range(
      "\0\0\0\0\0\0\0\0"
      "\0\0\x08\0\0\0\0\0",
      16);
  const std::string head = Packed({"app", "t", id}) + range;
  Raw busy = Link();
  busy.Send(kHelloBytes +
            Frame(FabricOperation::kWrite, 1, head, static_cast<std::uint32_t>(head.size()), 512U << 10U) +
            half);
  ASSERT_EQ(busy.Receive(26).size(), 26U);
  std::ifstream object(mPlace.Pool() + "/app/" + id);
  for (int tries = 0; tries < 6000 && object.seekg(0).peek() != 'w'; ++tries) {
    ::poll(nullptr, 0, 5);
    object.sync();
  }
  Raw idle = Link();
  idle.Send(kHelloBytes);
  ASSERT_EQ(idle.Receive(26).size(), 26U);
  // The answer may be here before the connection counts as idle: a newcomer is refused until then.
  std::optional<Raw> third;
  for (int tries = 0; tries < 1000; ++tries) {
    third.emplace(Link());
    third->Send(kHelloBytes);
    if (third->Receive(26).size() == 26U) {
      break;
    }
  }
  EXPECT_TRUE(idle.Closes(0));
  busy.Send(half);
  EXPECT_EQ(busy.Receive(24), Frame(FabricOperation::kWrite, 1, "", 0, 0));
}

enum class Way { kBroker, kLink, kTlsLink };

class UndoTest : public DoorsTest, public testing::WithParamInterface<Way> {};
std::string NameOf(const testing::TestParamInfo<Way>& way) {
  static const char* const gNames[] = {"Broker", "Link", "TlsLink"};
  return gNames[static_cast<int>(way.param)];
}
INSTANTIATE_TEST_SUITE_P(Ways, UndoTest, testing::Values(Way::kBroker, Way::kLink, Way::kTlsLink), NameOf);

TEST_P(UndoTest, AnAllocationWhoseAnswerNobodyReadIsUndone) {
  std::optional<test::LinkTls> tls;
  if (GetParam() == Way::kTlsLink) {
    tls.emplace();
  }
  Start([&](FabricNodeOptions& options) {
    if (tls.has_value()) {
      tls->Use(options);
    }
  });
  const auto connect = [&] {
    return GetParam() == Way::kBroker ? Broker() : tls.has_value() ? SecuredLink(tls->Trust()) : Link();
  };
  const std::uint64_t before = mNode.Stats().used;
  const std::uint64_t size = 128U << 20U;
  const std::string request =
      Frame(FabricOperation::kAllocate, 1,
            std::string("\x07\0", 2) + Packed({"app", "t"}) + std::string("\0\0\0\x08\0\0\0\0", 8));
  const std::size_t answer = sizeof(FabricFrameHeader) + 2 + kIdLength;
  for (const bool answered : {false, true}) {
    {
      Raw raw = connect();
      raw.Send(kHelloBytes);
      ASSERT_EQ(raw.Receive(26).size(), 26U);
      raw.Send(request);
      if (answered) {
        ASSERT_TRUE(raw.HasArrived());
      } else {
        WaitFor(&FabricNodeStats::used, [&](std::uint64_t used) { return used >= before + size; });
      }
    }
    WaitForConnections(0);
    EXPECT_EQ(mNode.Stats().used, before) << answered;
    EXPECT_EQ(mNode.Stats().objects, 1U) << answered;
  }
  // Who has read the id keeps the object, however the connection ends afterwards.
  for (const bool more : {false, true}) {
    {
      Raw raw = connect();
      raw.Send(kHelloBytes + request);
      ASSERT_EQ(raw.Receive(26 + answer).size(), 26 + answer);
      if (more) {
        raw.Send(Frame(FabricOperation::kQuery, 2, ""));
        ASSERT_TRUE(raw.HasArrived());
      }
    }
    WaitForConnections(0);
    EXPECT_EQ(mNode.Stats().objects, 2U) << more;
    ASSERT_EQ(mNode.DestroyNamespace("app"), 0);
    ASSERT_EQ(mNode.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mNode.Allocate("app", 10, mId), 0);
  }
}

TEST_F(DoorsTest, WhatIsForwardedEndsWithItsCaller) {
  test::RawListener far;
  Start([&](FabricNodeOptions& options) {
    options.directory = [&](std::uint16_t, NodeAddress& address) {
      address = {"127.0.0.1", far.Port()};
      return true;
    };
  });
  const std::string object = Packed({"app", "t", MakeObjectId(8)});
  const std::string u64(8, '\0');
  const struct {
    FabricOperation operation;
    std::string head;
  } cases[] = {
      {FabricOperation::kCopy, object + u64 + object + u64 + u64},
      {FabricOperation::kDestroyNamespace, std::string("\x08\0", 2) + Packed({"app", "t"})},
      {FabricOperation::kFreeBatch,
       Packed({"app", "t"}) + std::string("\x01\0", 2) + Packed({MakeObjectId(8)})},
  };
  for (const auto& one : cases) {
    test::RawSocket owner;
    {
      Raw caller = Broker();
      caller.Send(kHelloBytes + Frame(one.operation, 1, one.head));
      owner = far.Accept();
      ASSERT_EQ(owner.Receive(32).size(), 32U);
      ASSERT_TRUE(owner.Send(Frame(FabricOperation::kHello, 0, std::string("\x08\0", 2))));
      ASSERT_EQ(owner.Receive(24 + one.head.size()), Frame(one.operation, 1, one.head));
    }
    // The owner is at work as long as anybody wants that.
    EXPECT_TRUE(test::Eventually([&] {
      owner.Send(Frame(one.operation, 1, "", 0, 0, kFrameProgress));
      return owner.EndsWithin(0);
    })) << static_cast<int>(one.operation);
  }
}

TEST_F(DoorsTest, AnIdleConnectionIsClosedAndAClientComesBack) {
  Start([](FabricNodeOptions& options) { options.idleSeconds = 1; });
  FabricClient client;
  const test::Tenant tenant{client, "app", "t"};
  ASSERT_EQ(client.Initialize(mPlace.Home().c_str(), 0), 0);
  EXPECT_EQ(tenant.Read(mId, 0, 2), std::string(2, '\0'));
  WaitForConnections(0);
  EXPECT_EQ(tenant.Read(mId, 0, 2), std::string(2, '\0'));
}

}  // namespace
}  // namespace vyn::fabric
