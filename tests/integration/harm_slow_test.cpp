// Harm to a whole cluster under load: daemons and servers are killed and frozen while a driver on each node
// makes, fills and deletes variables and an executor on the next node reads them. Calls may fail meanwhile.
// What must not happen: a variable that was acknowledged and is lost, bytes that differ, a call without an
// end, a client that dies, memory that does not come back.

#include "support/process/vynd_process.h"
#include "support/random_steps.h"

namespace vyn::test {
namespace {

using Client = std::unique_ptr<BroadcastClient>;

/// So many variables does a driver keep, so that the pool does not fill.
constexpr std::size_t kMostLive = 40;
/// Connections to the other daemons that one keeps for a while, with a thread each.
constexpr std::size_t kIdleConnections = 16;

/// One node, its driver, and the executor on the next node.
struct Worker {
  std::string Variable(std::uint32_t id) const { return " " + application + " " + std::to_string(id) + " "; }
  void Write(BroadcastClient& driver) {
    const std::uint32_t id = ++lastId;
    if (driver.Do("write" + Variable(id) + "2 30000 " + std::to_string(id % 251)) == "0") {
      live.push_back(id);
      ++acknowledged;
    }
  }
  std::string Read(BroadcastClient& executor, std::uint32_t id) const {
    return executor.Do("read" + Variable(id) + "2 " + std::to_string(id % 251));
  }
  void ReadOne(BroadcastClient& executor) {
    if (!live.empty()) {
      // Its node may be down at the moment: a failure is allowed, other bytes are not.
      const std::string answer = Read(executor, live[random() % live.size()]);
      read += answer == "0" ? 1 : 0;
      EXPECT_NE(answer, "other bytes") << application;
    }
  }
  void DeleteOne(BroadcastClient& driver) {
    if (live.size() > kMostLive) {
      std::swap(live[random() % live.size()], live.back());
      const std::uint32_t id = live.back();
      live.pop_back();
      driver.Do("delete" + Variable(id));
    }
  }

  std::unique_ptr<VyndNode> node;
  std::string application;
  std::mt19937 random;
  std::uint32_t lastId = 0;
  std::vector<std::uint32_t> live;           ///< acknowledged, and no deletion tried
  std::atomic<std::size_t> acknowledged{0};  ///< variables whose every block was filled
  std::size_t read = 0;                      ///< variables under load whose every byte was right
  std::jthread thread;
};

class HarmTest : public testing::Test {
 protected:
  void SetUp() override {
    for (std::size_t i = 0; i < 3; ++i) {
      const std::string id = std::to_string(i + 1);
      mWorkers[i].node = std::make_unique<VyndNode>(i + 1, "127.0.0." + id, mUrl, mMetadataPort.Number(),
                                                    "127.0.0.1,127.0.0.2,127.0.0.3");
      mWorkers[i].node->Start("256M");
      mWorkers[i].application = "load_" + id;
      mWorkers[i].random.seed(mSeed + static_cast<unsigned int>(i));
    }
    for (const Worker& worker : mWorkers) {
      mDescriptors = std::max(mDescriptors, worker.node->Descriptors());
      mThreads = std::max(mThreads, worker.node->Threads());
    }
    for (std::size_t i = 0; i < 3; ++i) {
      mWorkers[i].thread = std::jthread([this, i] { Run(mWorkers[i], *mWorkers[(i + 1) % 3].node); });
    }
    Progress();
  }
  /// Waits until every driver has had eight more variables acknowledged.
  void Progress() {
    for (const Worker& worker : mWorkers) {
      const std::size_t wanted = worker.acknowledged + 8;
      EXPECT_TRUE(WaitUntil([&] { return worker.acknowledged >= wanted; })) << worker.application;
    }
  }
  void Run(Worker& worker, const VyndNode& next) {
    Client driver;
    Client executor;
    try {
      while (!mStop) {
        driver = driver != nullptr ? std::move(driver) : Join(worker, *worker.node, true);
        executor = executor != nullptr ? std::move(executor) : Join(worker, next, false);
        // Processes of the engine come and go, too: some end between two calls, some are killed in one.
        const unsigned int fate = worker.random() % 60;
        Client& victim = fate % 2 == 0 ? driver : executor;
        std::jthread killer;
        if (fate < 2) {
          killer = std::jthread([&victim, after = worker.random() % 20000] {
            std::this_thread::sleep_for(std::chrono::microseconds(after));
            victim->Process().Signal(SIGKILL);
          });
        }
        try {
          worker.Write(*driver);
          worker.ReadOne(*executor);
          worker.DeleteOne(*driver);
        } catch (const std::runtime_error&) {
          if (fate >= 2) {
            throw;
          }
        }
        killer = {};
        if (fate < 2) {
          victim->Process().Kill();
        }
        if (fate < 4) {
          victim.reset();
        }
      }
    } catch (const std::exception& error) {
      ADD_FAILURE() << worker.application << ": " << error.what();
    }
  }
  /// Returns: a client on the node whose application is registered.
  static Client Join(const Worker& worker, const VyndNode& node, bool driver) {
    std::string last;
    Client client;
    const auto joined = [&] {
      try {
        client = std::make_unique<BroadcastClient>(node, driver);
        last = client->Do("register " + worker.application + (driver ? " 1 secret" : " 0 secret"));
      } catch (const std::runtime_error& error) {
        last = error.what();
      }
      return last == "0";
    };
    if (!WaitUntil(joined, std::chrono::seconds(240))) {
      throw std::runtime_error("cannot join: " + last);
    }
    return client;
  }

  /// All is well again: nothing acknowledged is lost, and all memory comes back.
  void TearDown() override {
    mStop = true;
    for (Worker& worker : mWorkers) {
      worker.thread = {};
    }
    for (const Worker& worker : mWorkers) {
      EXPECT_GT(worker.read, 0U);
      for (const Worker& place : mWorkers) {
        const auto executor = Join(worker, *place.node, false);
        for (const std::uint32_t id : worker.live) {
          std::string last;
          EXPECT_TRUE(WaitUntil([&] { return (last = worker.Read(*executor, id)) == "0"; }))
              << worker.application << ": variable " << id << " was acknowledged, and now " << last;
        }
      }
      const auto driver = Join(worker, *worker.node, true);
      EXPECT_TRUE(WaitUntil([&] { return driver->Do("complete " + worker.application) == "0"; }));
    }
    for (const Worker& worker : mWorkers) {
      VyndNode& node = *worker.node;
      const auto calm = [&] {
        return node.PoolEntries().empty() && node.Descriptors() <= mDescriptors + kIdleConnections &&
               node.Threads() <= mThreads + kIdleConnections;
      };
      EXPECT_TRUE(WaitUntil(calm)) << node.PoolEntries().size() << " files, " << node.Descriptors()
                                   << " descriptors, " << node.Threads() << " threads; at first "
                                   << mDescriptors << " and " << mThreads;
    }
    for (const Worker& worker : mWorkers) {
      worker.node->Process().Signal(SIGTERM);
      EXPECT_EQ(worker.node->Process().Wait(), 0);
    }
  }

  /// Returns: the number of the node that leads, once there is one.
  std::size_t Leader() {
    std::string leader;
    EXPECT_TRUE(WaitUntil([&] {
      try {
        leader = RawZookeeper(mUrl).Get("/meta/election/leader_info");
      } catch (const std::runtime_error&) {
        leader.clear();  // the ensemble elects
      }
      return leader.rfind("127.0.0.", 0) == 0;
    }));
    return static_cast<std::size_t>(leader.back() - '1');
  }

  const unsigned int mSeed = Seeds(1)[0];
  const testing::ScopedTrace mTrace{__FILE__, __LINE__, "VYN_SEED=" + std::to_string(mSeed)};
  ZookeeperEnsemble mEnsemble;
  const std::string mUrl = mEnsemble.NewRoot();
  const ReservedPort mMetadataPort;
  // Of the daemon that has most, the leader, before the load.
  std::size_t mDescriptors = 0, mThreads = 0;
  std::atomic<bool> mStop{false};
  std::array<Worker, 3> mWorkers;
};

/// VYN_HARM_SECONDS (20) sets how long it goes on.
TEST_F(HarmTest, TheClusterKeepsAcknowledgedVariablesWhileProcessesAreKilled) {
  const char* wish = std::getenv("VYN_HARM_SECONDS");
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(wish ? std::atoi(wish) : 20);
  std::mt19937 random(mSeed);
  const auto rest = [&](unsigned int most) {
    std::this_thread::sleep_for(std::chrono::milliseconds(random() % most));
  };
  while (std::chrono::steady_clock::now() < end) {
    VyndNode& node = *mWorkers.at(random() % 3 == 0 ? Leader() : random() % 3).node;
    const unsigned int harm = random() % 4;
    std::cout << "harm " << harm << " to " << node.Home() << std::endl;
    if (harm < 2) {
      node.Process().Kill();
      rest(1000);
      node.Start("256M");
    } else if (harm == 2) {
      node.Process().Signal(SIGSTOP);
      rest(3000);
      node.Process().Signal(SIGCONT);
    } else {
      ZookeeperServer& server = mEnsemble.Leader();
      server.Kill();
      rest(1000);
      server.Start();
      mEnsemble.WaitUntilComplete();
    }
    rest(2000);
  }
  Progress();
}

}  // namespace
}  // namespace vyn::test
