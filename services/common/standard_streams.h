#pragma once

// The standard streams of a program. The main thread calls both functions.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vyn::services {

/// Occupies those of the descriptors 0, 1 and 2 that are closed, so that no socket and no file gets their
/// numbers. Writing to a standard output that was closed then fails. Call it first.
inline void OccupyStandardStreams() {
  for (int descriptor = 0; descriptor <= 2; ++descriptor) {
    if (fcntl(descriptor, F_GETFD) < 0) {
      static_cast<void>(open("/dev/null", descriptor == 2 ? O_WRONLY : O_RDONLY));
    }
  }
}

/// Writes what is still buffered for standard output. Returns: `code`; 1 instead of 0, after a line on
/// standard error, when some of the output could not be written.
inline int EndOutput(const char* program, int code) {
  errno = 0;
  const bool failed = std::fflush(stdout) != 0 || std::ferror(stdout) != 0;
  if (!failed) {
    return code;
  }
  std::fprintf(stderr, "%s: standard output cannot be written%s%s\n", program, errno == 0 ? "" : ": ",
               errno == 0 ? "" : std::strerror(errno));
  return code == 0 ? 1 : code;
}

}  // namespace vyn::services
