#pragma once

// Hosts of a network of their own: network namespaces on one switch, gone with this object. They need root.

#include <string>
#include <vector>

namespace vyn::test {

class NetworkHosts {
 public:
  /// Returns: whether network namespaces can be made here.
  static bool Possible();
  /// Throws std::runtime_error when they cannot be made.
  explicit NetworkHosts(int count);
  ~NetworkHosts();
  NetworkHosts(const NetworkHosts&) = delete;
  NetworkHosts& operator=(const NetworkHosts&) = delete;

  std::string Address(int host) const { return "10.78.0." + std::to_string(host + 1); }
  /// Words in front of a command that runs on the host.
  std::vector<std::string> Prefix(int host) const;
  /// Moves this thread, and the threads and processes that it starts from now on, to the host.
  void Enter(int host) const;
  /// Bytes that the host has sent to the others.
  unsigned long long Sent(int host) const;

 private:
  std::string Name(int host) const { return mMark + "h" + std::to_string(host); }
  const int mCount;
  const std::string mMark;
};

}  // namespace vyn::test
