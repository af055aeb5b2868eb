// Many applications with many variables on one node.

#include "support/vynd_process.h"

#include <gtest/gtest.h>

#include <thread>

namespace vyn::test {
namespace {

constexpr int kApplications = 200;
constexpr int kVariables = 50;
constexpr int kDrivers = 4;

TEST(ScaleTest, TwoHundredApplicationsWithFiftyVariablesEach) {
  ZookeeperServer server;
  const ReservedPort metadataPort;
  VyndNode node(1, "127.0.0.1", server.NewRoot(), metadataPort.Number(), "127.0.0.1");
  node.Start("256M");
  const auto name = [](int application) { return "app-" + std::to_string(application); };
  const auto variable = [](int id) { return " " + std::to_string(id) + " 1"; };
  // Each driver has a share of the applications. Returns the first answer that is not what it should be.
  const auto everywhere = [&](const std::function<std::string(BroadcastClient&, int)>& work) {
    std::vector<std::string> failures(kDrivers);
    {
      std::vector<std::jthread> threads;
      for (int i = 0; i < kDrivers; ++i) {
        threads.emplace_back([&, i] {
          BroadcastClient client(node, true);
          for (int app = i; app < kApplications && failures[i].empty(); app += kDrivers) {
            failures[i] = work(client, app);
          }
        });
      }
    }
    std::string all;
    for (const std::string& failure : failures) {
      all += failure;
    }
    return all;
  };
  EXPECT_EQ(
      everywhere([&](BroadcastClient& driver, int app) -> std::string {
        if (driver.Do("register " + name(app) + " 1 secret") != "0 1") {
          return "register " + name(app);
        }
        for (int id = 0; id < kVariables; ++id) {
          if (driver.Do("create " + name(app) + variable(id)) != "0" ||
              driver.Do("fill " + name(app) + variable(id) + " 4000 " + std::to_string(app + id)) != "0") {
            return "write " + name(app) + variable(id);
          }
        }
        return "";
      }),
      "");
  EXPECT_EQ(node.Objects(), static_cast<std::size_t>(kApplications * kVariables));

  node.Process().Kill();  // the next leadership reads all of it
  node.Start("256M");
  EXPECT_EQ(everywhere([&](BroadcastClient& driver, int app) -> std::string {
              if (driver.Do("register " + name(app) + " 1 secret") != "0 1") {
                return "register again " + name(app);
              }
              for (int id = 0; id < kVariables; id += 7) {
                if (driver.Do("fetch " + name(app) + variable(id)) != "0" ||
                    driver.Do("look " + name(app) + variable(id) + " " + std::to_string(app + id)) != "0 1") {
                  return "read " + name(app) + variable(id);
                }
              }
              return driver.Do("complete " + name(app)) == "0" ? "" : "complete " + name(app);
            }),
            "");
  EXPECT_TRUE(WaitUntil([&] { return node.Objects() == 0; }, std::chrono::seconds(120)));
  node.Process().Signal(SIGTERM);
  EXPECT_EQ(node.Process().Wait(), 0);
}

}  // namespace
}  // namespace vyn::test
