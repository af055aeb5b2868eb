#pragma once

// Registers this node in ZooKeeper. Its ephemeral records below /mf say that it runs; a thread of the
// registry updates them. By its persistent records the metadata leader knows the node while it is down.
//
// No two nodes may use one node id: each would free memory that the other's reclaim list names. So Claim must
// succeed before this process reads or writes anything else of the id. What Claim finds, and what it does:
//
//   /mf/node/<id> of another session, at another address          refuses: that node runs
//   ... at this address and link port                             replaces it: the record is from before a
//                                                                 restart, since this process has the port
//   ... at this address and another link port                     waits at most claimLimit: that node may run
//   /vyn/nodes/<id> with another address, and an empty pool here  refuses without takeOver: that node may
//                                                                 come back
//
// One thread calls Claim, Start and Stop. After Start only the registry's thread uses the other members.

#include "common/util/clock.h"
#include "common/wait/periodic_task.h"
#include "platform/fabric/node/fabric_node.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

namespace vyn::services {

struct NodeIdentity {
  std::uint16_t nodeId = 0;
  std::string address;
  std::string hostName;
  std::uint16_t linkPort = 0;
  /// Take the id although /vyn/nodes/<id> has another address: that node is gone for good, or has moved here
  /// and lost its pool.
  bool takeOver = false;
  /// How long Claim waits for the end of an earlier session. Must be longer than the session time-out.
  std::chrono::milliseconds claimLimit{40000};
};

class NodeRegistry {
 public:
  /// \param fabric must outlive the registry. \param madeAnew called by the registry's thread when the record of
  /// the node was missing and has been made anew: the leader may have taken the node for down meanwhile.
  NodeRegistry(NodeIdentity identity, const fabric::FabricNode& fabric, std::function<void()> madeAnew = {});
  /// Calls Stop.
  ~NodeRegistry();
  NodeRegistry(const NodeRegistry&) = delete;
  NodeRegistry& operator=(const NodeRegistry&) = delete;

  /// Claims the node id: creates the record below /mf/node, then the persistent records. Requires: the fabric
  /// node runs.
  /// \param stopping ends the wait early when it returns true. Returns: false with the reason in `error`:
  /// ZooKeeper failed, or the id belongs to another node. Claim does not change the records of another node.
  bool Claim(std::string& error, const std::function<bool()>& stopping = {});
  /// Publishes the capacity, after which the leader may choose this node for blocks, and starts the thread
  /// that updates the ephemeral records. Requires: Claim has succeeded. Returns: false with the reason in
  /// `error`.
  bool Start(std::string& error);
  /// Stops the thread and deletes this session's ephemeral records.
  void Stop();
  /// Whether the leader certainly takes this node for alive. Then it waits until this node has forgotten a
  /// deleted variable before it uses the number again. Any thread may call it. It holds for half of the
  /// session time-out after the last write of this session that ZooKeeper has answered.
  bool IsKnown() const { return common::SteadyNow() < mKnownUntil.load(std::memory_order_acquire); }

 private:
  enum class Published {
    kDone,
    kMadeAnew,   ///< done; this session's record was missing
    kUnchanged,  ///< done without a write
    kForeign,    ///< the record belongs to another node
    kUndecided,  ///< the record's node may run or may have ended
    kFailed,     ///< ZooKeeper failed
  };

  static bool IsDone(Published published) {
    return published == Published::kDone || published == Published::kMadeAnew ||
           published == Published::kUnchanged;
  }
  bool MakeTree(std::string& error);
  bool CheckKnownAddress(std::string& error);
  Published PublishIdentity(std::string& error);
  Published PublishCapacity(std::string& error);
  /// Creates the record or updates it. \param judge called with a record of another session; kDone lets
  /// PublishEphemeral replace it, any other value is returned. Returns: kDone, kMadeAnew, kUnchanged, or what
  /// prevented it.
  Published PublishEphemeral(const std::string& path, const std::string& record,
                             const std::function<Published(const std::string& present)>& judge,
                             std::string& error);
  /// Makes IsKnown true for a while. Does nothing unless `write` was a write that ZooKeeper has answered.
  void SetKnown(Published write, std::chrono::steady_clock::time_point asked);
  void UpdateRecords();

  const NodeIdentity mIdentity;
  const fabric::FabricNode& mFabric;
  const std::function<void()> mMadeAnew;
  std::atomic<std::chrono::steady_clock::time_point> mKnownUntil{};
  /// Whether the last UpdateRecords succeeded. Only the thread of mTask uses it.
  bool mPublished = true;
  common::PeriodicTask mTask;
};

}  // namespace vyn::services
