#pragma once

// Reading and writing znodes as the services do it: on the session of the process (VynGetZkHandle), with
// whole values, and several writes as one transaction. Results are ZooKeeper's own (ZOK, ZNONODE, ...). Any
// thread; no locks.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct Stat;

namespace vyn::services::zookeeper {

/// The longest value that is read; longer ones give ZMARSHALLINGERROR.
inline constexpr int kMaxValue = 1 << 20;

int Exists(const std::string& path, Stat* stat = nullptr);
int Get(const std::string& path, std::string& value, Stat* stat = nullptr);
int Children(const std::string& path, std::vector<std::string>& names);
/// A persistent znode, or an ephemeral one.
int Create(const std::string& path, const std::string& value, bool ephemeral = false);
/// Create that counts an existing znode as success.
int Ensure(const std::string& path, const std::string& value = "");
int Set(const std::string& path, const std::string& value, int version = -1);
int Delete(const std::string& path, int version = -1);
/// Deletes the znode with all below it. What others have deleted meanwhile counts as success.
int DeleteTree(const std::string& path);
/// Whether the znode is ephemeral and belongs to this process's session.
bool IsOwn(const Stat& stat);
/// What ZooKeeper calls `result`, with this thread's last message when there is one.
std::string ResultText(int result);

/// Whether ZooKeeper did not answer: a write with this result may have taken effect all the same.
bool IsUncertain(int result);

/// Writes that take effect together or not at all.
class Transaction {
 public:
  Transaction();
  ~Transaction();
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  Transaction& Check(const std::string& path, int version);
  Transaction& Create(const std::string& path, std::string value);
  Transaction& Set(const std::string& path, std::string value);
  Transaction& Delete(const std::string& path);
  std::size_t Size() const;
  /// Returns: ZOK, or the result of the operation that refused.
  int Commit();

 private:
  struct Operation;
  std::vector<std::unique_ptr<Operation>> mOperations;
};

}  // namespace vyn::services::zookeeper
