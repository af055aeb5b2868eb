// What takes the fabric's own time-outs to see.

#include "platform/fabric/protocol/names.h"
#include "platform/fabric/protocol/sockets.h"
#include "support/fabric.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>

namespace vyn::test {
namespace {

std::string IdOf(const std::string& answer) {
  EXPECT_EQ(answer.rfind("0 ", 0), 0U) << answer;
  return answer.substr(2);
}

TEST(FabricSlowTest, AStoppedNodeIsAnErrorInTimeAndGoesOnWhereItWas) {
  const FabricPlace near(1);
  const FabricPlace far(2);
  FabricHost nearHost(near);
  FabricHost farHost(far);
  nearHost.Knows(2, farHost.Port());
  ChildProcess local = StartFabricClient();
  ChildProcess linked = StartFabricClient();
  ASSERT_EQ(local.Ask("init " + near.Home() + " 0"), "0");
  ASSERT_EQ(linked.Ask("init - 1"), "0");
  ASSERT_EQ(linked.Ask("link 2 127.0.0.1 " + std::to_string(farHost.Port())), "0");
  ASSERT_EQ(linked.Ask("create 2 app token"), "0");
  ASSERT_EQ(local.Ask("create 1 app token"), "0");
  const std::string farId = IdOf(linked.Ask("alloc 2 app token 4096"));
  const std::string nearId = IdOf(local.Ask("alloc 1 app token 4096"));
  ASSERT_EQ(local.Ask("write app token " + farId + " 0 4096 1"), "0");

  // The far node stops: over a link, and through the near node, which stays well.
  farHost.Process().Signal(SIGSTOP);
  linked.Send("alloc 2 app token 4096");
  EXPECT_EQ(local.Ask("read app token " + farId + " 0 4096 1"), "-195 0");
  EXPECT_EQ(local.Ask("map app token " + farId + " 3").substr(0, 4), "-195");
  EXPECT_EQ(local.Ask("map app token " + nearId + " 3"), "0 0");
  EXPECT_EQ(linked.Receive().substr(0, 4), "-195");
  farHost.Process().Signal(SIGCONT);
  EXPECT_EQ(local.Ask("read app token " + farId + " 0 4096 1"), "0 1");
  EXPECT_EQ(farHost.Stats()[2], 1U);  // what was asked for by one who has given up is not made

  // The near node stops.
  nearHost.Process().Signal(SIGSTOP);
  EXPECT_EQ(local.Ask("map app token " + nearId + " 3"), "-195 0");
  ChildProcess fresh = StartFabricClient();
  ASSERT_EQ(fresh.Ask("init " + near.Home() + " 0"), "0");
  EXPECT_EQ(fresh.Ask("map app token " + nearId + " 3").substr(0, 4), "-195");
  nearHost.Process().Signal(SIGCONT);
  EXPECT_EQ(local.Ask("map app token " + nearId + " 3"), "0 1");
  EXPECT_EQ(fresh.Ask("map app token " + nearId + " 3"), "0 0");
}

TEST(FabricSlowTest, AFrameThatDoesNotComeToItsEndIsNotWaitedForWithoutLimit) {
  const FabricPlace place(1);
  FabricHost host(place);
  int error = 0;
  const auto slow = bm::ConnectToLink("127.0.0.1", host.Port(), bm::After(std::chrono::seconds(5)), error);
  ASSERT_NE(slow, nullptr);
  const std::string start = "VBM1";
  std::size_t received = 0;
  char byte = 0;
  // A byte now and then does not help.
  const auto begin = std::chrono::steady_clock::now();
  bm::IoStatus status = bm::IoStatus::kTimeout;
  for (std::size_t index = 0; status == bm::IoStatus::kTimeout && index < 20; ++index) {
    char next = index < start.size() ? start[index] : '\0';
    iovec part{&next, 1};
    slow->Send(&part, 1, bm::After(std::chrono::seconds(1)), -1);
    status = slow->Receive(&byte, 1, received, bm::After(std::chrono::seconds(2)));
  }
  EXPECT_EQ(status, bm::IoStatus::kClosed);
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(38));
  EXPECT_EQ(host.Stats().back(), 0U);
}

}  // namespace
}  // namespace vyn::test
