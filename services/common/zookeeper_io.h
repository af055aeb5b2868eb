#pragma once

// Reads and writes znodes for the services, on the session of the process (VynGetZkHandle). A value is read
// and written as a whole; several writes can form one transaction. Results are ZooKeeper's own (ZOK, ZNONODE,
// ...).
//
// Any thread may call the functions. A Transaction belongs to one thread.

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace vyn::services::zookeeper {

/// The longest value that Get returns. For a longer one it returns ZMARSHALLINGERROR.
inline constexpr int kMaxValue = 1 << 20;

int Exists(const std::string& path, Stat* stat = nullptr);
int Get(const std::string& path, std::string& value, Stat* stat = nullptr);
int Children(const std::string& path, std::vector<std::string>& names);
/// Sets a watch, too: `watcher` is called, on a thread of the session, when a child has come or gone.
int Children(const std::string& path, std::vector<std::string>& names, watcher_fn watcher, void* context);
int Create(const std::string& path, const std::string& value, bool ephemeral = false);
/// Creates a persistent znode. Returns: ZOK also if the znode exists already.
int Ensure(const std::string& path, const std::string& value = "");
int Set(const std::string& path, const std::string& value, int version = -1);
int Delete(const std::string& path, int version = -1);
/// Deletes the znode and everything below it. Returns: ZOK also if another process has deleted some of it.
int DeleteTree(const std::string& path);
/// Whether the znode is ephemeral and belongs to this process's session.
bool IsOwn(const Stat& stat);
/// Returns: ZooKeeper's name of `result`, and this thread's last error message if there is one.
std::string ResultText(int result);

/// Whether `result` says that ZooKeeper did not answer. A write with such a result may have taken effect.
bool IsUncertain(int result);

/// Several writes that ZooKeeper performs atomically.
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
  /// Returns: ZOK, or the result of the step that failed.
  int Commit();

 private:
  struct Step;
  std::vector<std::unique_ptr<Step>> mSteps;
};

}  // namespace vyn::services::zookeeper
