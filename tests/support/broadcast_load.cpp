#include "support/broadcast_load.h"

#include <signal.h>

#include <algorithm>
#include <exception>
#include <stdexcept>

namespace vyn::test {

namespace {

/// So many variables does a driver keep, so that the pool does not fill.
constexpr std::size_t kMostLive = 40;
constexpr int kBlocks = 2;
constexpr int kBlockBytes = 30000;
/// Connections to the other daemons that one keeps for a while, with a thread each.
constexpr std::size_t kIdleConnections = 16;
/// How long anything may take while daemons come and go.
constexpr std::chrono::seconds kLimit{120};

std::string Blocks(const std::string& application, std::uint32_t id) {
  return application + " " + std::to_string(id) + " " + std::to_string(kBlocks);
}

/// The pattern of a variable.
std::string Seed(std::uint32_t id) { return std::to_string(id % 251); }

}  // namespace

BroadcastLoad::BroadcastLoad(std::vector<VyndNode*> nodes) : mNodes(std::move(nodes)) {
  for (VyndNode* node : mNodes) {
    mDescriptors = std::max(mDescriptors, node->Descriptors());
    mThreads = std::max(mThreads, node->Threads());
  }
  for (std::size_t i = 0; i < mNodes.size(); ++i) {
    mWorkers.push_back(std::make_unique<Worker>());
    mWorkers.back()->application = "load-" + std::to_string(i);
    mWorkers.back()->random.seed(static_cast<unsigned int>(i));
  }
  for (std::size_t i = 0; i < mNodes.size(); ++i) {
    mWorkers[i]->thread = std::thread([this, i] { Run(i); });
  }
}

BroadcastLoad::~BroadcastLoad() { Stop(); }

void BroadcastLoad::Stop() {
  mStop = true;
  for (const auto& worker : mWorkers) {
    if (worker->thread.joinable()) {
      worker->thread.join();
    }
  }
}

bool BroadcastLoad::Progress(std::size_t count) {
  std::vector<std::size_t> wanted;
  for (const auto& worker : mWorkers) {
    wanted.push_back(worker->acknowledged + count);
  }
  return WaitUntil(
      [&] {
        for (std::size_t i = 0; i < mWorkers.size(); ++i) {
          if (mWorkers[i]->acknowledged < wanted[i]) {
            return false;
          }
        }
        return true;
      },
      kLimit);
}

void BroadcastLoad::Run(std::size_t index) {
  Worker& worker = *mWorkers[index];
  std::unique_ptr<BroadcastClient> driver;
  std::unique_ptr<BroadcastClient> executor;
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
        Killed(worker, driver, [&] { Write(worker, *driver); });
      } else if (fate == 1) {
        Killed(worker, executor, [&] { ReadOne(worker, *executor); });
      } else {
        Write(worker, *driver);
        ReadOne(worker, *executor);
        Delete(worker, *driver);
      }
      if (fate == 2) {
        (worker.random() % 2 == 0 ? driver : executor).reset();
      }
    }
  } catch (const std::exception& error) {
    Fault(worker.application + ": " + error.what());
  }
}

void BroadcastLoad::Killed(Worker& worker, std::unique_ptr<BroadcastClient>& client,
                           const std::function<void()>& call) {
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

std::unique_ptr<BroadcastClient> BroadcastLoad::Join(std::size_t node, bool driver,
                                                     const std::string& application) {
  std::string last;
  std::unique_ptr<BroadcastClient> client;
  const auto joined = [&] {
    try {
      client = std::make_unique<BroadcastClient>(*mNodes[node], driver);
      last = client->Do("register " + application + (driver ? " 1 secret" : " 0 secret"));
    } catch (const std::runtime_error& error) {
      last = error.what();
    }
    if (last != "0 1") {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return last == "0 1";
  };
  if (!WaitUntil(joined, 2 * kLimit)) {
    throw std::runtime_error("cannot join node " + std::to_string(node) + ": " + last);
  }
  return client;
}

void BroadcastLoad::Write(Worker& worker, BroadcastClient& driver) {
  const std::uint32_t id = mNextId++;
  const std::string variable = Blocks(worker.application, id);
  worker.left.insert(id);
  ++mFailed;
  if (driver.Do("create " + variable) == "0" &&
      driver.Do("fill " + variable + " " + std::to_string(kBlockBytes) + " " + Seed(id)) == "0") {
    std::lock_guard lock(mMutex);
    mLive[worker.application].push_back(id);
    ++worker.acknowledged;
    ++mAcknowledged;
    --mFailed;
  }
}

void BroadcastLoad::ReadOne(Worker& worker, BroadcastClient& executor) {
  std::uint32_t id = 0;
  {
    std::lock_guard lock(mMutex);
    const auto& live = mLive[worker.application];
    if (live.empty()) {
      return;
    }
    id = live[worker.random() % live.size()];
  }
  if (executor.Do("fetch " + Blocks(worker.application, id)) == "0") {
    // Its node may be down at the moment: a failure to map is allowed, other bytes are not.
    const std::string answer = executor.Do("look " + Blocks(worker.application, id) + " " + Seed(id));
    if (answer == "0 0") {
      Fault(worker.application + ": variable " + std::to_string(id) + " has other bytes");
    }
    mRead += answer == "0 1" ? 1 : 0;
  }
}

void BroadcastLoad::Delete(Worker& worker, BroadcastClient& driver) {
  std::uint32_t id = 0;
  {
    std::lock_guard lock(mMutex);
    auto& live = mLive[worker.application];
    if (live.size() <= kMostLive) {
      return;
    }
    const auto victim = live.begin() + static_cast<std::ptrdiff_t>(worker.random() % live.size());
    id = *victim;
    live.erase(victim);
  }
  Remove(worker, driver, id);
}

bool BroadcastLoad::Remove(Worker& worker, BroadcastClient& driver, std::uint32_t id) {
  const bool removed = driver.Do("delete " + worker.application + " " + std::to_string(id)) == "0";
  if (removed) {
    worker.left.erase(id);
  }
  return removed;
}

void BroadcastLoad::Finish() {
  try {
    for (const auto& worker : mWorkers) {
      for (std::size_t node = 0; node < mNodes.size(); ++node) {
        CheckAll(node, worker->application);
      }
    }
    std::vector<std::unique_ptr<BroadcastClient>> drivers;
    for (std::size_t i = 0; i < mWorkers.size(); ++i) {
      drivers.push_back(Join(i, true, mWorkers[i]->application));
      RemoveAll(*mWorkers[i], *drivers[i]);
    }
    CheckObjects();
    for (std::size_t i = 0; i < mWorkers.size(); ++i) {
      if (!WaitUntil([&] { return drivers[i]->Do("complete " + mWorkers[i]->application) == "0"; }, kLimit)) {
        Fault(mWorkers[i]->application + " cannot be ended");
      }
    }
  } catch (const std::exception& error) {
    Fault(std::string("at the end: ") + error.what());
  }
  for (VyndNode* node : mNodes) {
    std::vector<std::string> entries;
    if (!WaitUntil([&] { return (entries = node->PoolEntries()).empty(); }, kLimit)) {
      Fault(node->Pool() + " still holds " + std::to_string(entries.size()) + " entries, " + entries.front());
    }
    const auto calm = [&] {
      return node->Descriptors() <= mDescriptors + kIdleConnections &&
             node->Threads() <= mThreads + kIdleConnections;
    };
    if (!WaitUntil(calm, kLimit)) {
      Fault(node->Pool() + ": the daemon has " + std::to_string(node->Descriptors()) + " descriptors and " +
            std::to_string(node->Threads()) + " threads, before " + std::to_string(mDescriptors) + " and " +
            std::to_string(mThreads));
    }
  }
}

void BroadcastLoad::RemoveAll(Worker& worker, BroadcastClient& driver) {
  const auto left = worker.left;
  for (const std::uint32_t id : left) {
    if (!WaitUntil([&] { return Remove(worker, driver, id); }, kLimit)) {
      Fault(worker.application + ": variable " + std::to_string(id) + " cannot be deleted");
      return;
    }
  }
}

void BroadcastLoad::CheckObjects() {
  std::size_t objects = 0;
  const auto few = [&] {
    objects = 0;
    for (VyndNode* node : mNodes) {
      objects += node->Objects();
    }
    return objects <= kBlocks * mFailed;
  };
  if (!WaitUntil(few, kLimit)) {
    Fault(std::to_string(objects) + " objects are left of deleted variables, after " +
          std::to_string(mFailed) + " failed to be written");
  }
}

void BroadcastLoad::CheckAll(std::size_t node, const std::string& application) {
  const auto executor = Join(node, false, application);
  for (const std::uint32_t id : mLive[application]) {
    std::string last;
    const auto readable = [&] {
      last = executor->Do("fetch " + Blocks(application, id));
      if (last == "0") {
        last = executor->Do("look " + Blocks(application, id) + " " + Seed(id));
      }
      return last == "0 1" || last == "0 0";
    };
    if (!WaitUntil(readable, kLimit) || last != "0 1") {
      Fault(application + ": variable " + std::to_string(id) + " was acknowledged, node " +
            std::to_string(node) + " answers " + last);
    }
  }
}

void BroadcastLoad::Fault(const std::string& line) {
  std::lock_guard lock(mMutex);
  mFaults += line + "\n";
}

std::string BroadcastLoad::Faults() const {
  std::lock_guard lock(mMutex);
  return mFaults;
}

}  // namespace vyn::test
