#include "platform/fabric/protocol/remote_node.h"

#include "platform/fabric/transport/link.h"
#include "support/fabric/fabric.h"
#include "support/net/peers.h"

namespace vyn::fabric {
namespace {

using std::chrono::milliseconds;

TEST(RemoteNodeTest, ADeadHostFailsAtMostOneCallHoweverManyConnectionsArePooled) {
  char bytes[6];
  NodeAttributes attributes;
  using Call = std::function<int(RemoteNode&, const ObjectName&)>;
  const std::pair<Call, int> cases[] = {
      {[&](RemoteNode& node, const ObjectName&) { return node.Query(attributes); }, kBmUnconnected},
      {[&](RemoteNode& node, const ObjectName& object) { return node.Read(object, 0, 1, bytes); },
       kBmUnconnected},
      {[&](RemoteNode& node, const ObjectName&) { return node.Reach(); }, 0}};
  for (const auto& [call, expected] : cases) {
    const test::FabricPlace places[] = {test::FabricPlace(1), test::FabricPlace(1)};
    test::FabricHost hosts[] = {test::FabricHost(places[0]), test::FabricHost(places[1])};
    std::uint16_t port = hosts[0].Port();
    RemoteNode node([&](net::Deadline deadline, int&) { return DialLink("127.0.0.1", port, deadline); },
                    PeerRole::kClient, 1, {milliseconds(20000), milliseconds(1000)});
    std::string id;
    ASSERT_EQ(node.CreateNamespace(1, {"app", "t"}), 0);
    ASSERT_EQ(node.Allocate(1, {"app", "t"}, 1, id), 0);
    const ObjectName object{{"app", "t"}, id};
    const std::function<int(int)> nest = [&](int depth) {
      return node.Read(object, 0, 1, [&](Channel& channel, std::uint64_t, std::uint32_t length) {
        EXPECT_EQ(depth > 0 ? nest(depth - 1) : 0, 0);
        return channel.ReadData(&bytes[depth], length, std::chrono::seconds(20));
      });
    };
    ASSERT_EQ(nest(5), 0);  // reads within reads: a connection each, and all are kept
    EXPECT_EQ(hosts[0].Ask("stat connections"), "6");
    hosts[0].Signal(SIGSTOP);
    port = hosts[1].Port();  // the host is back at once
    EXPECT_EQ(call(node, object), expected);
    EXPECT_EQ(node.Query(attributes), 0);
  }
}

TEST(RemoteNodeTest, ConnectAndHelloShareOneDeadline) {
  // Accepted by the kernel, answered by nobody; the connection itself takes most of the time.
  test::RawListener listener;
  RemoteNode node(
      [&](net::Deadline deadline, int&) {
        std::this_thread::sleep_for(milliseconds(deadline.PollTime() - 100));
        return DialLink("127.0.0.1", listener.Port(), deadline);
      },
      PeerRole::kClient, kAnyNode, {milliseconds(2000), std::chrono::seconds(60)});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(node.Reach(), kBmUnconnected);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, milliseconds(3800));  // of its own it would take 3900
}

TEST(RemoteNodeTest, InvalidAnswersEndTheCall) {
  const test::PeerNames names{
      {"hello", test::PeerBytes(R"("VBM1" u16:1 u16:0 u32:0 u32:0 u32:2 u32:0 u16:7)", {})}};
  for (const test::Peer& peer : test::Peers("answer", names)) {
    test::ScriptedServer server(1, [&](test::RawSocket& socket, int) {
      socket.Receive(32);
      peer.Play(socket);
      socket.Receive(24);
    });
    RemoteNode node(
        [&](net::Deadline deadline, int&) { return DialLink("127.0.0.1", server.Port(), deadline); },
        PeerRole::kClient, 7);
    NodeAttributes attributes;
    EXPECT_EQ(node.Query(attributes), std::stoi(peer.expected)) << peer.name;
  }
}

TEST(SocketStreamTest, ReceiveReportsAResetWhenThePeerClosesBeforeItReadEverything) {
  test::RawListener listener;
  const auto stream = DialLink("127.0.0.1", listener.Port(), net::Deadline::After(std::chrono::seconds(30)));
  test::RawSocket peer = listener.Accept();
  std::string bytes(64U << 20U, 'x');  // more than both sides' kernels hold
  iovec part{bytes.data(), bytes.size()};
  EXPECT_EQ(stream->Send(&part, 1, net::Deadline::After(std::chrono::seconds(1)), -1),
            net::IoStatus::kTimeout);
  // The end of its bytes alone, as over a network, where a refusal comes later.
  ::shutdown(peer.Descriptor(), SHUT_WR);
  std::size_t received = 0;
  EXPECT_EQ(stream->Receive(bytes.data(), 1, received, net::Deadline::After(std::chrono::seconds(30))),
            net::IoStatus::kReset);
}

}  // namespace
}  // namespace vyn::fabric
