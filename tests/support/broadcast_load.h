#pragma once

// A load on a cluster that checks every byte: a driver on each node that makes, fills and deletes variables,
// and an executor on the next node that reads them, while a test does harm to daemons and servers. Calls may
// fail meanwhile. What must not happen: a variable that was acknowledged and is lost, bytes that differ, a
// call without an end, a client that dies.

#include "support/vynd_process.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace vyn::test {

class BroadcastLoad {
 public:
  /// \param nodes with running daemons; they outlive the load.
  explicit BroadcastLoad(std::vector<VyndNode*> nodes);
  /// Stops.
  ~BroadcastLoad();
  BroadcastLoad(const BroadcastLoad&) = delete;
  BroadcastLoad& operator=(const BroadcastLoad&) = delete;

  /// Variables whose every block was filled, by all drivers.
  std::size_t Acknowledged() const { return mAcknowledged; }
  /// Reads of a variable whose every byte was right, while the load ran.
  std::size_t Read() const { return mRead; }
  /// Processes of the engine that were killed in the middle of a call.
  std::size_t Killed() const { return mKilled; }
  /// Waits until every driver has had `count` more acknowledged. Returns: whether it has within two minutes.
  bool Progress(std::size_t count);
  /// Lets the calls under way end.
  void Stop();
  /// Requires: stopped, and all daemons run. Reads every variable that was acknowledged and not deleted, at
  /// every node; then deletes all, looks whether their blocks go, ends the applications and looks whether
  /// pools, descriptors and threads are as before the load.
  void Finish();
  /// Returns: what must not happen and did, a line each.
  std::string Faults() const;

 private:
  struct Worker {
    std::string application;
    std::mt19937 random;
    /// Variables that it tried to make, but those whose deletion was acknowledged.
    std::set<std::uint32_t> left;
    std::atomic<std::size_t> acknowledged{0};
    std::thread thread;
  };

  void Run(std::size_t index);
  /// Makes a call of the client and kills it meanwhile, or, when the call was quicker, behind it.
  void Killed(Worker& worker, std::unique_ptr<BroadcastClient>& client, const std::function<void()>& call);
  /// Returns: a client whose application is registered.
  std::unique_ptr<BroadcastClient> Join(std::size_t node, bool driver, const std::string& application);
  void Write(Worker& worker, BroadcastClient& driver);
  void ReadOne(Worker& worker, BroadcastClient& executor);
  void Delete(Worker& worker, BroadcastClient& driver);
  /// Returns: whether the deletion was acknowledged.
  static bool Remove(Worker& worker, BroadcastClient& driver, std::uint32_t id);
  void RemoveAll(Worker& worker, BroadcastClient& driver);
  /// A daemon that is killed between making blocks and answering leaves them until their application ends;
  /// nothing else is left of deleted variables.
  void CheckObjects();
  void CheckAll(std::size_t node, const std::string& application);
  void Fault(const std::string& line);

  const std::vector<VyndNode*> mNodes;
  /// Of the daemon that has most, the leader, before the load.
  std::size_t mDescriptors = 0;
  std::size_t mThreads = 0;
  std::vector<std::unique_ptr<Worker>> mWorkers;
  std::atomic<bool> mStop{false};
  std::atomic<std::size_t> mAcknowledged{0};
  std::atomic<std::size_t> mRead{0};
  /// Variables whose blocks were perhaps made, and which were not acknowledged.
  std::atomic<std::size_t> mFailed{0};
  std::atomic<std::size_t> mKilled{0};
  std::atomic<std::uint32_t> mNextId{1};
  mutable std::mutex mMutex;
  // Guarded by mMutex.
  std::map<std::string, std::vector<std::uint32_t>> mLive;
  std::string mFaults;
};

}  // namespace vyn::test
