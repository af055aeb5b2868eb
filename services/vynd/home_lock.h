#pragma once

// One daemon a home: the lock on <home>/run/vynd.lock, which the kernel lets go when its holder ends, however
// it ends.

#include <string>

namespace vyn::services {

class HomeLock {
 public:
  HomeLock() = default;
  ~HomeLock();
  HomeLock(const HomeLock&) = delete;
  HomeLock& operator=(const HomeLock&) = delete;

  /// Takes the lock and writes this process's id into the file. Returns: false with what stood in the way.
  bool Take(const std::string& home, std::string& error);

 private:
  int mDescriptor = -1;
};

}  // namespace vyn::services
