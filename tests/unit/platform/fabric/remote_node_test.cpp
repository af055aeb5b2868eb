#include "platform/fabric/protocol/remote_node.h"

#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"
#include "support/command.h"
#include "support/fabric.h"
#include "support/raw_socket.h"
#include "support/test.h"

namespace vyn::fabric {
namespace {

/// A stream without a file, a peer that goes, or an end.
class PlainStream : public ByteStream {
 public:
  net::IoStatus Send(iovec*, std::size_t, net::Deadline, int) override { return net::IoStatus::kOk; }
  net::IoStatus SendFile(int, std::uint64_t, std::uint64_t, net::Deadline) override {
    return net::IoStatus::kFailed;
  }
  bool Quiet() override { return true; }
  bool PeerGone() override { return false; }
  void Shutdown() override {}
};

/// A connection whose other side can die without a word.
class MortalStream : public PlainStream {
 public:
  MortalStream(std::unique_ptr<ByteStream> stream, std::shared_ptr<const bool> dead)
      : mStream(std::move(stream)), mDead(std::move(dead)) {}

  net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received,
                        net::Deadline deadline) override {
    return *mDead ? net::IoStatus::kTimeout : mStream->Receive(buffer, room, received, deadline);
  }
  net::IoStatus Send(iovec* parts, std::size_t count, net::Deadline deadline, int descriptor) override {
    return *mDead ? net::IoStatus::kOk : mStream->Send(parts, count, deadline, descriptor);
  }
  bool Quiet() override { return *mDead || mStream->Quiet(); }

 private:
  const std::unique_ptr<ByteStream> mStream;
  const std::shared_ptr<const bool> mDead;
};

TEST(RemoteNodeTest, AHostThatDiesCostsOneCallHoweverManyConnectionsAreKept) {
  const test::FabricPlace place(1);
  FabricNode host;
  std::string error;
  ASSERT_TRUE(host.Start(place.Options(), error)) << error;
  auto dead = std::make_shared<bool>(false);
  RemoteNode node(
      [&](net::Deadline deadline, int&) {
        return std::make_unique<MortalStream>(DialLink("127.0.0.1", host.LinkPort(), deadline), dead);
      },
      PeerRole::kClient, 1);
  ASSERT_EQ(node.CreateNamespace(1, {"app", "t"}), 0);
  std::string id;
  ASSERT_EQ(node.Allocate(1, {"app", "t"}, 4096, id), 0);
  const ObjectName object{{"app", "t"}, id};
  char bytes[6];
  const std::function<int(int)> nest = [&](int depth) {
    return node.Read(object, 0, 1, [&](Channel& channel, std::uint64_t, std::uint32_t length) {
      EXPECT_EQ(depth > 0 ? nest(depth - 1) : 0, 0);
      return channel.ReadData(&bytes[depth], length, std::chrono::seconds(20));
    });
  };
  NodeAttributes attributes;
  const std::pair<std::function<int()>, int> cases[] = {
      {[&] { return node.Query(attributes); }, kBmUnconnected},
      {[&] { return node.Read(object, 0, 1, bytes); }, kBmUnconnected},
      {[&] { return node.Reach(); }, 0}};
  for (const auto& [call, expected] : cases) {
    ASSERT_EQ(nest(5), 0);  // reads within reads: a connection each, and all are kept
    EXPECT_GE(host.Stats().connections, 6U);
    *dead = true;  // for all connections up to now; the host is back at once
    dead = std::make_shared<bool>(false);
    EXPECT_EQ(call(), expected);
    EXPECT_EQ(node.Query(attributes), 0);
  }
}

TEST(RemoteNodeTest, ConnectingAndGreetingShareOneDeadline) {
  // Accepted by the kernel, answered by nobody; the connection itself takes most of the time.
  test::RawListener listener;
  const std::chrono::milliseconds time(2000);
  RemoteNode node(
      [&](net::Deadline deadline, int&) {
        std::this_thread::sleep_for(std::chrono::milliseconds(deadline.PollTime() - 100));
        return DialLink("127.0.0.1", listener.Port(), deadline);
      },
      PeerRole::kClient, kAnyNode, {time, std::chrono::seconds(60)});
  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(node.Reach(), kBmUnconnected);
  const auto taken = std::chrono::steady_clock::now() - begin;
  EXPECT_GE(taken, time - std::chrono::milliseconds(200));
  EXPECT_LT(taken, time + time * 9 / 10);  // a hello with a deadline of its own would double it
}

TEST(SocketsTest, ASocketThatFindsItselfHasFoundNoNode) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "a network of its own needs root";
  }
  // Where a single port is left for the kernel to choose, and nobody listens on it.
  bool ready = false;
  std::unique_ptr<SocketStream> found;
  std::thread host([&] {
    ready = ::unshare(CLONE_NEWNET) == 0 &&
            test::RunCommand("ip link set lo up && echo 40000 40000 > /proc/sys/net/ipv4/ip_local_port_range")
                    .status == 0;
    found = ready ? DialLink("127.0.0.1", 40000, net::Deadline::After(std::chrono::seconds(30))) : nullptr;
  });
  host.join();
  ASSERT_TRUE(ready);
  EXPECT_EQ(found, nullptr);
}

/// A node that answers every request with this frame, again and again.
class RepeatingStream : public PlainStream {
 public:
  explicit RepeatingStream(const FabricFrameHeader& frame) : mFrame(frame) {}

  net::IoStatus Receive(void* buffer, std::size_t room, std::size_t& received, net::Deadline) override {
    EXPECT_GE(room, sizeof(mFrame));
    std::memcpy(buffer, &mFrame, sizeof(mFrame));
    received = sizeof(mFrame);
    return mEnd.IsOver() ? net::IoStatus::kClosed : net::IoStatus::kOk;
  }

 private:
  const FabricFrameHeader mFrame;
  const net::Deadline mEnd = net::Deadline::After(std::chrono::seconds(60));
};

TEST(ChannelTest, AnswersThatAreNone) {
  constexpr auto kCopy = static_cast<std::uint16_t>(FabricOperation::kCopy);
  const std::pair<FabricFrameHeader, net::IoStatus> cases[] = {
      {{kFrameMagic, kCopy, 0, 0, 0, 0, 0}, net::IoStatus::kOk},
      {{kFrameMagic, kCopy, 0, 1, 0, 0, 0}, net::IoStatus::kFailed},
      {{kFrameMagic, kCopy + 1, 0, 0, 0, 0, 0}, net::IoStatus::kFailed},
      {{kFrameMagic, kCopy, kFrameProgress, 0, 0, 1, 0},
       net::IoStatus::kFailed},  // an interim answer carries nothing
      {{kFrameMagic, kCopy, kFrameProgress, 0, 0, 0, 1}, net::IoStatus::kFailed},
      {{kFrameMagic, kCopy, kFrameProgress, 0, 0, 0, 0},
       net::IoStatus::kTimeout}};  // without a pause, and no end
  for (const auto& [frame, expected] : cases) {
    Channel channel(std::make_unique<RepeatingStream>(frame));
    int result = -1;
    std::string head;
    std::uint32_t dataLength = 0;
    EXPECT_EQ(
        channel.ReadAnswer(FabricOperation::kCopy, result, head, dataLength, std::chrono::milliseconds(50)),
        expected);
  }
}

TEST(SocketsTest, WhoEndsBeforeHeHasTakenAllHasNotReadIt) {
  for (const bool takesAll : {false, true}) {
    test::RawListener listener;
    const auto stream =
        DialLink("127.0.0.1", listener.Port(), net::Deadline::After(std::chrono::seconds(30)));
    ASSERT_NE(stream, nullptr);
    test::RawSocket peer = listener.Accept();
    std::string bytes(takesAll ? 100 : 64U << 20U, 'x');  // more than both sides' kernels hold
    iovec part{bytes.data(), bytes.size()};
    const net::IoStatus sent =
        stream->Send(&part, 1, net::Deadline::After(std::chrono::seconds(takesAll ? 30 : 1)), -1);
    EXPECT_EQ(sent, takesAll ? net::IoStatus::kOk : net::IoStatus::kTimeout);
    if (takesAll) {
      ASSERT_EQ(peer.Receive(bytes.size()), bytes);
    }
    // The end of its bytes alone, as over a network, where a refusal comes later.
    ASSERT_EQ(::shutdown(peer.Descriptor(), SHUT_WR), 0);
    char byte;
    std::size_t received = 0;
    EXPECT_EQ(stream->Receive(&byte, 1, received, net::Deadline::After(std::chrono::seconds(30))),
              takesAll ? net::IoStatus::kClosed : net::IoStatus::kReset);
  }
}

}  // namespace
}  // namespace vyn::fabric
