// What any process can send to the listeners of a node, byte by byte, and how the node answers.

#include "platform/fabric/protocol/codec.h"
#include "platform/fabric/protocol/names.h"
#include "platform/fabric/transport/broker_socket.h"
#include "support/fabric/fabric.h"
#include "support/net/peers.h"
#include "support/wait_until.h"

namespace vyn::fabric {
namespace {

using test::PeerBytes;
using test::RawSocket;
using test::WaitUntil;
using test::Wire;

const std::string kHello = PeerBytes(R"("VBM1" u16:1 u16:0 u32:0 u32:0 u32:8 u32:0 u16:1 u16:1 u32:-1)", {});

std::string Frame(FabricOperation operation, std::uint32_t sequence, const std::string& arguments = "",
                  std::uint32_t data = 0, std::uint16_t flags = 0, std::int32_t result = 0) {
  return "VBM1" +
         Wire(operation, flags, sequence, result, static_cast<std::uint32_t>(arguments.size()), data) +
         arguments;
}
std::string Packed(const std::vector<std::string>& texts) {
  Writer writer;
  for (const std::string& text : texts) {
    writer.Text(text);
  }
  return std::string(writer.Bytes());
}

class ListenerTest : public testing::Test {
 protected:
  void Start() {
    test::StartAgain(mNode, mOptions);
    MakeObject(10);
  }
  void MakeObject(std::uint64_t size) {
    mNode.DestroyNamespace("app");
    ASSERT_EQ(mNode.CreateNamespace("app", "t"), 0);
    ASSERT_EQ(mNode.Allocate("app", size, mId), 0);
  }
  RawSocket Connect(bool link) {
    if (link) {
      return RawSocket::Connect(mNode.LinkPort());
    }
    int error = 0;
    const auto broker = ConnectToBroker(mPlace.Home(), net::Deadline::After(std::chrono::seconds(30)), error);
    RawSocket socket(::dup(broker->Socket()));
    ::fcntl(socket.Descriptor(), F_SETFL, 0);  // as RawSocket expects it
    return socket;
  }
  RawSocket Greeted(bool link) {
    RawSocket caller = Connect(link);
    caller.Send(kHello);
    EXPECT_EQ(caller.Receive(26), PeerBytes(R"("VBM1" u16:1 u16:0 u32:0 u32:0 u32:2 u32:0 u16:7)", {}));
    return caller;
  }

  const test::FabricPlace mPlace{7};
  FabricNodeOptions mOptions = mPlace.Options();
  FabricNode mNode;
  std::string mId;
};

TEST_F(ListenerTest, AnInvalidRequestClosesItsOwnConnectionOnly) {
  Start();
  const test::PeerNames names{{"hello", kHello},
                              {"object", Packed({"app", "t", mId})},
                              {"ns", Packed({"app", "t"})},
                              {"id", Packed({mId})},
                              {"other", Packed({MakeObjectId(8)})}};
  for (const bool link : {false, true}) {
    for (const std::string set : {"listener", link ? "link" : "broker"}) {
      for (const test::Peer& peer : test::Peers(set, names)) {
        RawSocket caller = Connect(link);
        peer.Play(caller);
        EXPECT_EQ(caller.Receive(100).size(), std::stoul(peer.expected)) << peer.name;
      }
    }
    RawSocket caller = Greeted(link);
    caller.Send(PeerBytes(R"("VBM1" u16:10 u16:0 u32:1 u32:0 u32:70 u32:0 $object)", names));
    EXPECT_EQ(caller.Receive(32), PeerBytes(R"("VBM1" u16:10 u16:0 u32:1 u32:0 u32:8 u32:0 u64:10)", {}));
    caller.Send(Frame(FabricOperation::kStat, 2, Packed({"app", "t", MakeObjectId(8)})));
    const int unknown = link ? kBmRemoteProtocol : kBmUnconnected;  // a link forwards nothing
    EXPECT_EQ(caller.Receive(24), Frame(FabricOperation::kStat, 2, "", 0, 0, unknown));
  }
}

TEST_F(ListenerTest, AFullListenerClosesIdleConnectionsAndKeepsBusyOnes) {
  mOptions.maxConnectionsPerPeer = 2;
  Start();
  // The older one is in the middle of a write, as the object shows.
  MakeObject(512U << 10U);
  const std::string half(256U << 10U, 'w');
  RawSocket busy = Greeted(true);
  busy.Send(Frame(FabricOperation::kWrite, 1,
                  Packed({"app", "t", mId}) + Wire(std::uint64_t{0}, std::uint64_t{512U << 10U}),
                  512U << 10U) +
            half);
  ASSERT_TRUE(WaitUntil([&] { return std::ifstream(mPlace.Pool() + "/app/" + mId).peek() == 'w'; }));
  RawSocket idle = Greeted(true);
  // The answer may be here before the connection counts as idle: a newcomer is refused until then.
  RawSocket third;
  EXPECT_TRUE(WaitUntil([&] {
    third = Connect(true);
    third.Send(kHello);
    return third.Receive(26).size() == 26U;
  }));
  EXPECT_TRUE(idle.EndsWithin(RawSocket::kPatience));
  busy.Send(half);
  EXPECT_EQ(busy.Receive(24), Frame(FabricOperation::kWrite, 1));
}

TEST_F(ListenerTest, TheListenerFreesAnObjectWhoseReplyWasNotDelivered) {
  Start();
  const std::uint64_t size = 128U << 20U;
  const std::string request =
      Frame(FabricOperation::kAllocate, 1, Wire(std::uint16_t{7}) + Packed({"app", "t"}) + Wire(size));
  // Who has read the id keeps the object, however the connection ends afterwards.
  enum { kNoAnswer, kUnread, kRead, kReadAndMore };
  for (const bool link : {false, true}) {
    for (const int end : {kNoAnswer, kUnread, kRead, kReadAndMore}) {
      RawSocket caller = Greeted(link);
      const std::uint64_t before = mNode.Stats().used;
      caller.Send(request);
      if (end == kNoAnswer) {
        ASSERT_TRUE(WaitUntil([&] { return mNode.Stats().used > before; }));
      } else if (end == kUnread) {
        ASSERT_TRUE(caller.Readable(RawSocket::kPatience));
      } else {
        ASSERT_EQ(caller.Receive(86).size(), 86U);
        caller.Send(end == kReadAndMore ? Frame(FabricOperation::kQuery, 2) : "");
        ASSERT_TRUE(end == kRead || caller.Readable(RawSocket::kPatience));
      }
      caller.Close();
      EXPECT_TRUE(WaitUntil([&] { return mNode.Stats().connections == 0; }));
      EXPECT_EQ(mNode.Stats().used, end < kRead ? before : before + size) << link << end;
      MakeObject(10);
    }
  }
}

TEST_F(ListenerTest, AForwardedCallEndsWhenItsCallerDisconnects) {
  test::RawListener far;
  mOptions.directory = [&](std::uint16_t, NodeAddress& address) {
    address = {"127.0.0.1", far.Port()};
    return true;
  };
  Start();
  const std::string object = Packed({"app", "t", MakeObjectId(8)}) + std::string(8, '\0');
  const std::pair<FabricOperation, std::string> requests[] = {
      {FabricOperation::kCopy, object + object + std::string(8, '\0')},
      {FabricOperation::kDestroyNamespace, Wire(std::uint16_t{8}) + Packed({"app", "t"})},
      {FabricOperation::kFreeBatch,
       Packed({"app", "t"}) + Wire(std::uint16_t{1}) + Packed({MakeObjectId(8)})}};
  for (const auto& [operation, arguments] : requests) {
    RawSocket caller = Greeted(false);
    caller.Send(Frame(operation, 1, arguments));
    RawSocket owner = far.Accept();
    ASSERT_EQ(owner.Receive(32).size(), 32U);
    owner.Send(Frame(FabricOperation::kHello, 0, Wire(std::uint16_t{8})));
    ASSERT_EQ(owner.Receive(24 + arguments.size()), Frame(operation, 1, arguments));
    caller.Close();
    // The owner is at work as long as anybody wants that.
    EXPECT_TRUE(WaitUntil([&, what = operation] {
      owner.Send(Frame(what, 1, "", 0, kFrameProgress));
      return owner.EndsWithin(0);
    })) << static_cast<int>(operation);
  }
}

}  // namespace
}  // namespace vyn::fabric
