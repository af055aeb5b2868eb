#pragma once

// Ensures that one vynd at a time uses a home: an flock on <home>/run/vynd.lock. The kernel releases it when
// the process ends, also after a crash.
//
// One thread uses an object.

#include "platform/net/descriptor.h"

#include <string>

namespace vyn::services {

class HomeLock {
 public:
  /// Takes the lock and writes this process's id into the file. Returns: false with the reason in `error`.
  bool Take(const std::string& home, std::string& error);

 private:
  net::Descriptor mDescriptor;
};

}  // namespace vyn::services
