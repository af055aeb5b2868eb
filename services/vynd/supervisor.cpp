#include "services/vynd/supervisor.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace vyn::services {

void NotifySupervisor(const char* state) {
  const char* path = std::getenv("NOTIFY_SOCKET");
  sockaddr_un address{};
  const std::size_t length = path == nullptr ? 0 : std::strlen(path);
  if (length < 2 || length >= sizeof(address.sun_path) || (path[0] != '/' && path[0] != '@')) {
    return;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path, length);
  if (path[0] == '@') {  // an abstract socket, which the kernel marks by a leading NUL
    address.sun_path[0] = '\0';
  }
  const int descriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (descriptor < 0) {
    return;
  }
  static_cast<void>(sendto(descriptor, state, std::strlen(state), MSG_NOSIGNAL | MSG_DONTWAIT,
                           reinterpret_cast<const sockaddr*>(&address),
                           static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length)));
  close(descriptor);
}

}  // namespace vyn::services
