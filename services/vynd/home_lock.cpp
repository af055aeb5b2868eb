#include "services/vynd/home_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace vyn::services {

bool HomeLock::Take(const std::string& home, std::string& error) {
  const std::string folder = home + "/run";
  const std::string path = folder + "/vynd.lock";
  if (mkdir(folder.c_str(), 0755) != 0 && errno != EEXIST) {
    error = "cannot make " + folder + ": " + std::strerror(errno);
    return false;
  }
  mDescriptor.Reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644));
  if (!mDescriptor) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return false;
  }
  if (flock(mDescriptor.Get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno == EWOULDBLOCK) {
      std::array<char, 32> holder{};
      const ssize_t length = pread(mDescriptor.Get(), holder.data(), holder.size() - 1, 0);
      error = "a vynd runs on " + home + " already";
      if (length > 0) {
        error += ", process " + std::string(holder.data(), std::strcspn(holder.data(), "\n"));
      }
    } else {
      error = "cannot lock " + path + ": " + std::strerror(errno);
    }
    mDescriptor.Close();
    return false;
  }
  const std::string pid = std::to_string(getpid()) + "\n";
  if (ftruncate(mDescriptor.Get(), 0) != 0 ||
      pwrite(mDescriptor.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
    error = "cannot write " + path + ": " + std::strerror(errno);
    return false;
  }
  return true;
}

}  // namespace vyn::services
