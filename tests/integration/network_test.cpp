// Three nodes on three hosts of a network: what is written on one is read on the others.

#include "support/network_hosts.h"
#include "support/vynd_process.h"

#include <gtest/gtest.h>

#include <thread>

namespace vyn::test {
namespace {

TEST(NetworkTest, EachNodePullsAVariableOnce) {
  if (!NetworkHosts::Possible()) {
    GTEST_SKIP() << "network namespaces cannot be made here";
  }
  const NetworkHosts hosts(3);
  hosts.Enter(0);
  ZookeeperServer server("0.0.0.0");  // of its host
  std::string url = server.NewRoot();
  url.replace(0, url.find(':'), hosts.Address(0));
  const ReservedPort metadataPort;
  std::vector<std::unique_ptr<VyndNode>> nodes;
  for (int i = 0; i < 3; ++i) {
    nodes.push_back(std::make_unique<VyndNode>(
        i + 1, hosts.Address(i), url, metadataPort.Number(),
        hosts.Address(0) + "," + hosts.Address(1) + "," + hosts.Address(2), hosts.Prefix(i)));
    nodes.back()->Start("256M");
  }
  constexpr unsigned long long kBytes = 16ULL << 20U;
  BroadcastClient driver(*nodes[0], true);
  ASSERT_EQ(driver.Do("register app 1 secret"), "0 1");
  ASSERT_EQ(driver.Do("create app 1 4"), "0");
  ASSERT_EQ(driver.Do("fill app 1 4 " + std::to_string(kBytes / 4) + " 9"), "0");

  const unsigned long long before = hosts.Sent(0);
  std::vector<std::string> answers(6);
  {
    std::vector<std::jthread> readers;
    for (std::size_t i = 0; i < answers.size(); ++i) {
      readers.emplace_back([&, i] {
        BroadcastClient executor(*nodes[1 + i % 2], false);
        if (executor.Do("register app 0 secret") == "0 1" && executor.Do("fetch app 1 4") == "0") {
          answers[i] = executor.Do("look app 1 4 9");
        }
      });
    }
  }
  EXPECT_EQ(answers, std::vector<std::string>(answers.size(), "0 1"));
  // Three readers on each of two nodes: the contents cross the network twice, with what the calls take.
  const unsigned long long sent = hosts.Sent(0) - before;
  EXPECT_GT(sent, 2 * kBytes);
  EXPECT_LT(sent, 2 * kBytes + kBytes / 2);
  EXPECT_EQ(driver.Do("complete app"), "0");
  for (const auto& node : nodes) {
    EXPECT_TRUE(WaitUntil([&] { return node->Objects() == 0; }));
    node->Process().Signal(SIGTERM);
    EXPECT_EQ(node->Process().Wait(), 0);
  }
}

}  // namespace
}  // namespace vyn::test
