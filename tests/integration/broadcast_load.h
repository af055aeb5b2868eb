#pragma once

// A load on a cluster that checks every byte: a driver on each node that makes, fills and deletes variables,
// and an executor on the next node that reads them, while a test does harm to daemons and servers. Calls may
// fail meanwhile. What must not happen: a variable that was acknowledged and is lost, bytes that differ, a
// call without an end, a client that dies.

#include "support/test.h"
#include "support/vynd_process.h"

namespace vyn::test {

class BroadcastLoad {
 public:
  /// \param nodes with running daemons; they outlive the load.
  explicit BroadcastLoad(const std::vector<VyndNode*>& nodes) : mNodes(nodes), mWorkers(nodes.size()) {
    for (VyndNode* node : mNodes) {
      mDescriptors = std::max(mDescriptors, node->Descriptors());
      mThreads = std::max(mThreads, node->Threads());
    }
    for (std::size_t i = 0; i < mNodes.size(); ++i) {
      mWorkers[i].application = "load-" + std::to_string(i);
      mWorkers[i].random.seed(static_cast<unsigned int>(i));
      mWorkers[i].thread = std::jthread([this, i] { Run(i); });
    }
  }
  ~BroadcastLoad() { Stop(); }
  BroadcastLoad(const BroadcastLoad&) = delete;
  BroadcastLoad& operator=(const BroadcastLoad&) = delete;

  /// Waits until every driver has had `count` more variables acknowledged. Returns: whether it has in time.
  bool Progress(std::size_t count) {
    return std::all_of(mWorkers.begin(), mWorkers.end(), [&](const Worker& worker) {
      const std::size_t wanted = worker.acknowledged + count;
      return WaitUntil([&] { return worker.acknowledged >= wanted; }, kLimit);
    });
  }
  /// Requires: all daemons run. Lets the calls under way end and reads every variable that was acknowledged
  /// and not deleted, at every node; then deletes all, looks whether their blocks go, ends the applications
  /// and looks whether pools, descriptors and threads are as before the load.
  void Finish() {
    Stop();
    try {
      std::vector<std::unique_ptr<BroadcastClient>> drivers;
      for (Worker& worker : mWorkers) {
        for (std::size_t node = 0; node < mNodes.size(); ++node) {
          CheckAll(node, worker);
        }
      }
      for (std::size_t i = 0; i < mWorkers.size(); ++i) {
        drivers.push_back(Join(i, true, mWorkers[i].application));
        for (const std::uint32_t id : std::set(mWorkers[i].left)) {
          EXPECT_TRUE(WaitUntil([&] { return Remove(mWorkers[i], *drivers[i], id); }, kLimit)) << id;
        }
      }
      CheckObjects();
      for (std::size_t i = 0; i < mWorkers.size(); ++i) {
        const std::string complete = "complete " + mWorkers[i].application;
        EXPECT_TRUE(WaitUntil([&] { return drivers[i]->Do(complete) == "0"; }, kLimit)) << complete;
      }
    } catch (const std::exception& error) {
      ADD_FAILURE() << "at the end: " << error.what();
    }
    for (VyndNode* node : mNodes) {
      const auto calm = [&] {
        return node->PoolEntries().empty() && node->Descriptors() <= mDescriptors + kIdleConnections &&
               node->Threads() <= mThreads + kIdleConnections;
      };
      EXPECT_TRUE(WaitUntil(calm, kLimit))
          << node->PoolEntries().size() << " files in " << node->Pool() << ", " << node->Descriptors()
          << " descriptors, at first " << mDescriptors << ", " << node->Threads() << " threads, at first "
          << mThreads;
    }
  }

  // Variables whose every block was filled; reads under load whose every byte was right; clients that were
  // killed in the middle of a call.
  std::atomic<std::size_t> mAcknowledged{0}, mRead{0}, mKilled{0};

 private:
  using Client = std::unique_ptr<BroadcastClient>;

  struct Worker {
    std::string application;
    std::mt19937 random;
    std::vector<std::uint32_t> live;  ///< acknowledged, and no deletion tried
    std::set<std::uint32_t> left;     ///< tried to make, and no deletion acknowledged
    std::atomic<std::size_t> acknowledged{0};
    std::jthread thread;
  };

  /// So many variables does a driver keep, so that the pool does not fill.
  static constexpr std::size_t kMostLive = 40;
  static constexpr std::size_t kBlocks = 2;
  /// Connections to the other daemons that one keeps for a while, with a thread each.
  static constexpr std::size_t kIdleConnections = 16;
  /// How long anything may take while daemons come and go.
  static constexpr std::chrono::seconds kLimit{120};

  static std::string Blocks(const Worker& worker, std::uint32_t id) {
    return worker.application + " " + std::to_string(id) + " " + std::to_string(kBlocks) + " ";
  }
  static std::string Look(const Worker& worker, std::uint32_t id, BroadcastClient& executor) {
    const std::string fetched = executor.Do("fetch " + Blocks(worker, id));
    return fetched == "0" ? executor.Do("look " + Blocks(worker, id) + std::to_string(id % 251)) : fetched;
  }
  static bool Remove(Worker& worker, BroadcastClient& driver, std::uint32_t id) {
    const bool removed = driver.Do("delete " + worker.application + " " + std::to_string(id)) == "0";
    if (removed) {
      worker.left.erase(id);
    }
    return removed;
  }

  void Stop() {
    mStop = true;
    for (Worker& worker : mWorkers) {
      worker.thread = {};
    }
  }

  void Run(std::size_t index) {
    Worker& worker = mWorkers[index];
    Client driver;
    Client executor;
    try {
      while (!mStop) {
        if (driver == nullptr) {
          driver = Join(index, true, worker.application);
        }
        if (executor == nullptr) {
          executor = Join((index + 1) % mNodes.size(), false, worker.application);
        }
        // Processes of the engine come and go, too: some end between two calls, some are killed in one.
        const unsigned int fate = worker.random() % 60;
        if (fate == 0) {
          KillDuring(worker, driver, [&] { Write(worker, *driver); });
        } else if (fate == 1) {
          KillDuring(worker, executor, [&] { ReadOne(worker, *executor); });
        } else {
          Write(worker, *driver);
          ReadOne(worker, *executor);
          DeleteOne(worker, *driver);
        }
        if (fate == 2) {
          (worker.random() % 2 == 0 ? driver : executor).reset();
        }
      }
    } catch (const std::exception& error) {
      ADD_FAILURE() << worker.application << ": " << error.what();
    }
  }
  /// Makes a call of the client and kills it meanwhile, or, when the call was quicker, behind it.
  void KillDuring(Worker& worker, Client& client, const std::function<void()>& call) {
    const auto after = std::chrono::microseconds(worker.random() % 20000);
    std::thread killer([&client, after] {
      std::this_thread::sleep_for(after);
      client->Process().Signal(SIGKILL);
    });
    try {
      call();
    } catch (const std::runtime_error&) {
      ++mKilled;  // in the call
    }
    killer.join();
    client.reset();
  }
  /// Returns: a client whose application is registered.
  Client Join(std::size_t node, bool driver, const std::string& application) {
    std::string last;
    Client client;
    const auto joined = [&] {
      try {
        client = std::make_unique<BroadcastClient>(*mNodes[node], driver);
        last = client->Do("register " + application + (driver ? " 1 secret" : " 0 secret"));
      } catch (const std::runtime_error& error) {
        last = error.what();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(last == "0 1" ? 0 : 100));
      return last == "0 1";
    };
    if (!WaitUntil(joined, 2 * kLimit)) {
      throw std::runtime_error("cannot join node " + std::to_string(node) + ": " + last);
    }
    return client;
  }
  void Write(Worker& worker, BroadcastClient& driver) {
    const std::uint32_t id = mNextId++;
    worker.left.insert(id);
    ++mFailed;
    if (driver.Do("create " + Blocks(worker, id)) == "0" &&
        driver.Do("fill " + Blocks(worker, id) + "30000 " + std::to_string(id % 251)) == "0") {
      worker.live.push_back(id);
      ++worker.acknowledged;
      ++mAcknowledged;
      --mFailed;
    }
  }
  void ReadOne(Worker& worker, BroadcastClient& executor) {
    if (!worker.live.empty()) {
      const std::uint32_t id = worker.live[worker.random() % worker.live.size()];
      // Its node may be down at the moment: a failure to map is allowed, other bytes are not.
      const std::string answer = Look(worker, id, executor);
      mRead += answer == "0 1" ? 1 : 0;
      EXPECT_NE(answer, "0 0") << worker.application << ": variable " << id << " has other bytes";
    }
  }
  static void DeleteOne(Worker& worker, BroadcastClient& driver) {
    if (worker.live.size() > kMostLive) {
      std::swap(worker.live[worker.random() % worker.live.size()], worker.live.back());
      const std::uint32_t id = worker.live.back();
      worker.live.pop_back();
      Remove(worker, driver, id);
    }
  }

  void CheckAll(std::size_t node, const Worker& worker) {
    const auto executor = Join(node, false, worker.application);
    for (const std::uint32_t id : worker.live) {
      std::string last;
      const auto looked = [&] { return (last = Look(worker, id, *executor)) == "0 1" || last == "0 0"; };
      EXPECT_TRUE(WaitUntil(looked, kLimit) && last == "0 1")
          << worker.application << ": variable " << id << " was acknowledged, node " << node << " answers "
          << last;
    }
  }
  /// A daemon that is killed between making blocks and answering leaves them until their application ends;
  /// nothing else is left of deleted variables.
  void CheckObjects() {
    const auto few = [&] {
      std::size_t objects = 0;
      for (VyndNode* node : mNodes) {
        objects += node->Objects();
      }
      return objects <= kBlocks * mFailed;
    };
    EXPECT_TRUE(WaitUntil(few, kLimit)) << "blocks of deleted variables are left";
  }
  const std::vector<VyndNode*> mNodes;
  // Of the daemon that has most, the leader, before the load.
  std::size_t mDescriptors = 0;
  std::size_t mThreads = 0;
  std::vector<Worker> mWorkers;
  std::atomic<bool> mStop{false};
  std::atomic<std::size_t> mFailed{0};  ///< variables that may have blocks and were not acknowledged
  std::atomic<std::uint32_t> mNextId{1};
};

}  // namespace vyn::test
