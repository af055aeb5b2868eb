// What takes the fabric's own time-outs to see.

#include "platform/fabric/transport/broker_socket.h"
#include "platform/fabric/transport/link.h"
#include "support/fabric.h"
#include "support/fake_clock.h"
#include "support/installation.h"
#include "support/test.h"
#include "vyn/big_memory.h"

namespace vyn::test {
namespace {

TEST(FabricSlowTest, AStoppedNodeIsAnErrorInTimeAndGoesOnWhereItWas) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near);
  FabricHost farHost(far);
  nearHost.Knows(2, farHost.Port());
  FabricClient local(near.Home());
  FabricClient mapping(near.Home());
  FabricClient linked("");
  ASSERT_EQ(linked.Ask("link 2 127.0.0.1 " + std::to_string(farHost.Port())), "0");
  ASSERT_EQ(linked.Ask("create 2 app token"), "0");
  ASSERT_EQ(local.Ask("create 1 app token"), "0");
  const std::string farId = linked.Allocate(2, 4096);
  const std::string nearId = local.Allocate(1, 4096);
  ASSERT_EQ(local.Ask("write app token " + farId + " 0 4096 1"), "0");

  // The far node stops: over a link, and through the near node, which stays well.
  farHost.Process().Signal(SIGSTOP);
  linked.Send("alloc 2 app token 4096");
  mapping.Send("map app token " + farId + " 3");
  local.Send("read app token " + farId + " 0 4096 1");
  EXPECT_EQ(FabricClient(near.Home()).Ask("map app token " + nearId + " 3"), "0 0");
  EXPECT_EQ(local.Receive(), "-195 0");
  EXPECT_EQ(mapping.Receive(), "-195");
  EXPECT_EQ(linked.Receive().substr(0, 4), "-195");
  farHost.Process().Signal(SIGCONT);
  EXPECT_EQ(local.Ask("read app token " + farId + " 0 4096 1"), "0 1");
  EXPECT_EQ(farHost.Stats()[2], 1U);  // what was asked for by one who has given up is not made

  // The near node stops. The library gives up in its own time, and its wrapper tries again.
  Installation::Get().LinkBmClient();
  ASSERT_EQ(BmInitialize(near.Home().c_str(), 0), 0U);
  FakeClock clock([&] { nearHost.Process().Signal(SIGCONT); });
  char byte = 'x';
  nearHost.Process().Signal(SIGSTOP);
  local.Send("map app token " + nearId + " 3");
  EXPECT_EQ(local.Receive(), "-195");
  EXPECT_EQ(BmWrite(nearId.c_str(), 4095, 1, &byte, 0, "app", "token"), 0U) << BmGetLastErrorMessage();
  EXPECT_EQ(clock.Sleeps().size(), 1U);
  EXPECT_EQ(local.Ask("map app token " + nearId + " 3"), "0 0");
  EXPECT_EQ(BmUninitialize(), 0U);
}

TEST(FabricSlowTest, AFrameThatDoesNotComeToItsEndIsNotWaitedForWithoutLimit) {
  const FabricPlace place(1);
  FabricHost host(place);
  const auto slow = fabric::DialLink("127.0.0.1", host.Port(), net::Deadline::After(std::chrono::seconds(5)));
  ASSERT_NE(slow, nullptr);
  std::size_t received = 0;
  char byte = 0;
  // A byte now and then does not help.
  const auto begin = std::chrono::steady_clock::now();
  net::IoStatus status = net::IoStatus::kTimeout;
  for (std::size_t index = 0; status == net::IoStatus::kTimeout && index < 20; ++index) {
    char next = index < 4 ? "VBM1"[index] : '\0';
    iovec part{&next, 1};
    slow->Send(&part, 1, net::Deadline::After(std::chrono::seconds(1)), -1);
    status = slow->Receive(&byte, 1, received, net::Deadline::After(std::chrono::seconds(2)));
  }
  EXPECT_NE(status, net::IoStatus::kTimeout);  // a byte that crosses the close makes it a reset
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(38));
  EXPECT_EQ(host.Stats().back(), 0U);
}

}  // namespace
}  // namespace vyn::test
