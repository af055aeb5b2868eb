// What strangers can send to a node's doors, byte by byte, and what becomes of them.

#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/protocol.h"
#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"
#include "support/fabric.h"
#include "support/link_tls.h"
#include "support/peers.h"
#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::PeerBytes;
using test::RawSocket;
using test::WaitUntil;
using test::Wire;

enum class Way { kBroker, kLink, kTlsLink };

const std::string kHello = PeerBytes(R"("VBM1" u16:1 u16:0 u32:0 u32:0 u32:8 u32:0 u16:1 u16:1 u32:-1)", {});

std::string Frame(FabricOperation operation, std::uint32_t sequence, const std::string& arguments,
                  std::uint32_t data = 0, std::uint16_t flags = 0, std::int32_t result = 0) {
  return "VBM1" +
         Wire(static_cast<std::uint16_t>(operation), flags, sequence, result,
              static_cast<std::uint32_t>(arguments.size()), data) +
         arguments;
}
std::string Packed(const std::vector<std::string>& texts) {
  std::string bytes;
  for (const std::string& text : texts) {
    bytes += Wire(static_cast<std::uint16_t>(text.size())) + text;
  }
  return bytes;
}

/// A caller at one of the doors.
class Caller {
 public:
  Caller(RawSocket socket, std::unique_ptr<ByteStream> secured)
      : mSocket(std::move(socket)), mSecured(std::move(secured)) {}

  void Send(std::string bytes) {
    iovec part{bytes.data(), bytes.size()};
    mSecured == nullptr
        ? mSocket.Send(bytes)
        : mSecured->Send(&part, 1, net::Deadline::After(std::chrono::seconds(30)), -1) == net::IoStatus::kOk;
  }
  std::string Receive(std::size_t length) {
    std::string bytes = mSecured == nullptr ? mSocket.Receive(length) : std::string(length, '\0');
    std::size_t got = 0;
    for (std::size_t count = 0; mSecured != nullptr && got < length; got += count) {
      if (mSecured->Receive(bytes.data() + got, length - got, count,
                            net::Deadline::After(std::chrono::seconds(30))) != net::IoStatus::kOk) {
        return bytes.substr(0, got);
      }
    }
    return bytes;
  }
  RawSocket& Socket() { return mSocket; }

 private:
  RawSocket mSocket;
  std::unique_ptr<ByteStream> mSecured;
};

class DoorsTest : public testing::TestWithParam<Way> {
 protected:
  void Start(const std::function<void(FabricNodeOptions&)>& change = nullptr) {
    FabricNodeOptions options = mPlace.Options();
    if (change != nullptr) {
      change(options);
    }
    std::string error;
    ASSERT_TRUE(mNode.Start(options, error)) << error;
    MakeObject();
  }
  void MakeObject() {
    ASSERT_EQ(mNode.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mNode.Allocate("app", 10, mId), 0);
  }
  /// \param trust of a client, for a link under TLS.
  Caller Connect(Way way, const tls::TlsContext::SecurityMap& trust = {}) {
    const net::Deadline deadline = net::Deadline::After(std::chrono::seconds(30));
    int error = 0;
    auto stream = way == Way::kBroker ? ConnectToBroker(mPlace.Home(), deadline, error)
                                      : DialLink("127.0.0.1", mNode.LinkPort(), deadline);
    RawSocket socket(::dup(stream->Socket()));
    if (way != Way::kTlsLink) {
      ::fcntl(socket.Descriptor(), F_SETFL, 0);  // as RawSocket expects it
      return {std::move(socket), nullptr};
    }
    std::string text;
    auto tls = tls::TlsContext::ForClient(trust, text)->NewStream(stream->Socket());
    EXPECT_EQ(stream->StartTls(std::move(tls), deadline), net::IoStatus::kOk);
    return {std::move(socket), std::move(stream)};
  }
  RawSocket Greeted(Way way) {
    Caller caller = Connect(way);
    caller.Send(kHello);
    EXPECT_EQ(caller.Receive(26).size(), 26U);
    return std::move(caller.Socket());
  }
  bool WaitForConnections(std::uint64_t count) {
    return WaitUntil([&] { return mNode.Stats().connections == count; });
  }

  test::FabricPlace mPlace{7};
  FabricNode mNode;
  std::string mId;
};

TEST_F(DoorsTest, AHelloAndAStatAreTheseBytes) {
  Start();
  for (const Way way : {Way::kBroker, Way::kLink}) {
    Caller caller = Connect(way);
    caller.Send(kHello);
    EXPECT_EQ(caller.Receive(26), PeerBytes(R"("VBM1" u16:1 u16:0 u32:0 u32:0 u32:2 u32:0 u16:7)", {}));
    caller.Send(PeerBytes(R"("VBM1" u16:10 u16:0 u32:1 u32:0 u32:70 u32:0 u16:3 "app" u16:1 "t" u16:60 $id)",
                          {{"id", mId}}));
    EXPECT_EQ(caller.Receive(32), PeerBytes(R"("VBM1" u16:10 u16:0 u32:1 u32:0 u32:8 u32:0 u64:10)", {}));
    caller.Send(Frame(FabricOperation::kStat, 2, Packed({"app", "wrong", mId})));
    EXPECT_EQ(caller.Receive(24), Frame(FabricOperation::kStat, 2, "", 0, 0, -EACCES));
    caller.Send(
        Frame(FabricOperation::kStat, 3, Packed({"app", "t", MakeObjectId(8)})));  // a link forwards nothing
    EXPECT_EQ(caller.Receive(24), Frame(FabricOperation::kStat, 3, "", 0, 0,
                                        way == Way::kLink ? kBmRemoteProtocol : kBmUnconnected));
  }
}

TEST_F(DoorsTest, WhatIsNoConversationEndsTheConnectionAndNothingElse) {
  Start();
  const test::PeerNames names{{"hello", kHello},
                              {"object", Packed({"app", "t", mId})},
                              {"ns", Packed({"app", "t"})},
                              {"id", Packed({mId})},
                              {"other", Packed({MakeObjectId(8)})}};
  for (const auto& [set, ways] : std::map<std::string, std::vector<Way>>{
           {"door", {Way::kBroker, Way::kLink}}, {"link", {Way::kLink}}, {"broker", {Way::kBroker}}}) {
    for (const test::Peer& peer : test::Peers(set, names)) {
      for (const Way way : ways) {
        Caller caller = Connect(way);
        peer.Play(caller.Socket());
        EXPECT_EQ(caller.Receive(100).size(), std::stoul(peer.expected)) << peer.name;
      }
    }
  }
  FabricClient client;
  ASSERT_EQ(client.Initialize(mPlace.Home().c_str(), 0), 0);
  EXPECT_EQ((test::Tenant{client, "app", "t"}.Read(mId, 0, 10)), std::string(10, '\0'));
  EXPECT_EQ(mNode.Stats().objects, 1U);
}

TEST_F(DoorsTest, AFullDoorLetsTheIdleGoAndKeepsTheBusy) {
  Start([](FabricNodeOptions& options) { options.maxConnectionsPerPeer = 2; });
  // The older one is in the middle of a write, as the object shows.
  ASSERT_EQ(mNode.Allocate("app", 512U << 10U, mId), 0);
  const std::string half(256U << 10U, 'w');
  RawSocket busy = Greeted(Way::kLink);
  busy.Send(Frame(FabricOperation::kWrite, 1,
                  Packed({"app", "t", mId}) + Wire(std::uint64_t{0}, std::uint64_t{512U << 10U}),
                  512U << 10U) +
            half);
  ASSERT_TRUE(WaitUntil([&] { return std::ifstream(mPlace.Pool() + "/app/" + mId).peek() == 'w'; }));
  RawSocket idle = Greeted(Way::kLink);
  // The answer may be here before the connection counts as idle: a newcomer is refused until then.
  std::optional<Caller> third;
  EXPECT_TRUE(WaitUntil([&] {
    third.emplace(Connect(Way::kLink));
    third->Send(kHello);
    return third->Receive(26).size() == 26U;
  }));
  EXPECT_TRUE(idle.EndsWithin(RawSocket::kPatience));
  busy.Send(half);
  EXPECT_EQ(busy.Receive(24), Frame(FabricOperation::kWrite, 1, ""));
}

std::string NameOf(const testing::TestParamInfo<Way>& way) {
  static const char* const gNames[] = {"Broker", "Link", "TlsLink"};
  return gNames[static_cast<int>(way.param)];
}
INSTANTIATE_TEST_SUITE_P(Ways, DoorsTest, testing::Values(Way::kBroker, Way::kLink, Way::kTlsLink), NameOf);

TEST_P(DoorsTest, AnAllocationWhoseAnswerNobodyReadIsUndone) {
  const test::LinkTls tls;
  Start([&](FabricNodeOptions& options) {
    if (GetParam() == Way::kTlsLink) {
      tls.Use(options);
    }
  });
  const std::uint64_t before = mNode.Stats().used;
  const std::uint64_t size = 128U << 20U;
  const std::string request =
      Frame(FabricOperation::kAllocate, 1, Wire(std::uint16_t{7}) + Packed({"app", "t"}) + Wire(size));
  const std::size_t answer = sizeof(FabricFrameHeader) + 2 + kIdLength;
  // Who has read the id keeps the object, however the connection ends afterwards.
  enum { kNoAnswer, kUnread, kRead, kReadAndMore };
  for (const int end : {kNoAnswer, kUnread, kRead, kReadAndMore}) {
    {
      Caller caller = Connect(GetParam(), tls.Trust());
      caller.Send(kHello);
      ASSERT_EQ(caller.Receive(26).size(), 26U);
      caller.Send(request);
      if (end == kNoAnswer) {
        ASSERT_TRUE(WaitUntil([&] { return mNode.Stats().used >= before + size; }));
      } else if (end >= kRead) {
        ASSERT_EQ(caller.Receive(answer).size(), answer);
        caller.Send(end == kReadAndMore ? Frame(FabricOperation::kQuery, 2, "") : "");
      }
      ASSERT_TRUE(end == kNoAnswer || end == kRead || caller.Socket().Readable(RawSocket::kPatience));
    }
    EXPECT_TRUE(WaitForConnections(0));
    EXPECT_EQ(mNode.Stats().objects, end < kRead ? 1U : 2U) << end;
    EXPECT_EQ(mNode.Stats().used, end < kRead ? before : before + size) << end;
    ASSERT_EQ(mNode.DestroyNamespace("app"), 0);
    MakeObject();
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
  const std::string object = Packed({"app", "t", MakeObjectId(8)}) + std::string(8, '\0');
  const std::pair<FabricOperation, std::string> requests[] = {
      {FabricOperation::kCopy, object + object + std::string(8, '\0')},
      {FabricOperation::kDestroyNamespace, Wire(std::uint16_t{8}) + Packed({"app", "t"})},
      {FabricOperation::kFreeBatch,
       Packed({"app", "t"}) + Wire(std::uint16_t{1}) + Packed({MakeObjectId(8)})}};
  for (const auto& [operation, arguments] : requests) {
    std::optional<RawSocket> caller(Greeted(Way::kBroker));
    caller->Send(Frame(operation, 1, arguments));
    RawSocket owner = far.Accept();
    ASSERT_EQ(owner.Receive(32).size(), 32U);
    ASSERT_TRUE(owner.Send(Frame(FabricOperation::kHello, 0, Wire(std::uint16_t{8}))));
    ASSERT_EQ(owner.Receive(24 + arguments.size()), Frame(operation, 1, arguments));
    caller.reset();
    // The owner is at work as long as anybody wants that.
    EXPECT_TRUE(WaitUntil([&, what = operation] {
      owner.Send(Frame(what, 1, "", 0, kFrameProgress));
      return owner.EndsWithin(0);
    })) << static_cast<int>(operation);
  }
}

TEST_F(DoorsTest, AnIdleConnectionIsClosedAndAClientComesBack) {
  Start([](FabricNodeOptions& options) { options.idleSeconds = 1; });
  FabricClient client;
  ASSERT_EQ(client.Initialize(mPlace.Home().c_str(), 0), 0);
  for (int turn = 0; turn < 2; ++turn) {
    EXPECT_EQ((test::Tenant{client, "app", "t"}.Read(mId, 0, 2)), std::string(2, '\0'));
    EXPECT_TRUE(WaitForConnections(0));
  }
}

}  // namespace
}  // namespace vyn::fabric
