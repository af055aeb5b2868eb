#pragma once

// A plain ZooKeeper client, to prepare and inspect a tree behind the back of the code under test. It is a
// shared library with a copy of the C client of its own: two clients of one copy write the server's address
// for their complaints into the same buffer, without a lock.

#include <zookeeper/zookeeper.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vyn::test {

/// A client of its own session. Its members throw std::runtime_error when ZooKeeper refuses.
class RawZookeeper {
 public:
  explicit RawZookeeper(const std::string& url);
  ~RawZookeeper();
  RawZookeeper(const RawZookeeper&) = delete;
  RawZookeeper& operator=(const RawZookeeper&) = delete;

  /// Creates a znode, with the znodes above it. A value of nullopt is null.
  void Create(const std::string& path, const std::optional<std::string>& value = std::nullopt, int flags = 0);
  void Set(const std::string& path, const std::string& value);
  void Delete(const std::string& path);
  bool Exists(const std::string& path) const { return Get(path) != "(none)"; }
  /// Returns: the session that owns the znode, 0 when it is persistent.
  std::int64_t Owner(const std::string& path) const;
  /// Returns: the value; "(none)" when there is no such znode, "(null)" when it has none.
  std::string Get(const std::string& path) const;
  std::vector<std::string> Children(const std::string& path) const;

 private:
  zhandle_t* mHandle = nullptr;
};

/// Makes a session expire, whatever its own client does. That client notices when it has waited for an answer
/// for two thirds of the time-out.
void ExpireSession(const std::string& url, const clientid_t& id);

}  // namespace vyn::test
