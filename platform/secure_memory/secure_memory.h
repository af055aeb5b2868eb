#pragma once

// Bounds-checked memory operations. The caller gives the size of the destination; an operation that does not
// fit copies nothing and returns an error. Threads: any; there is no state.

#include <cstddef>

extern "C" {

/// Result of an operation that refused its arguments; 0 is success.
enum SecureMemoryResult : int {
  SECURE_OK = 0,
  SECURE_NULL = 22,   ///< a pointer is null (EINVAL)
  SECURE_RANGE = 34,  ///< the destination is too small (ERANGE)
};

/// Copies `count` bytes. Requires: the areas do not overlap.
int memcpy_s(void* destination, std::size_t room, const void* source, std::size_t count);

/// Sets `count` bytes to `value`.
int memset_s(void* destination, std::size_t room, int value, std::size_t count);

/// Formats at most `count` characters and a NUL. Returns: the number of characters written, or -1 when the
/// text, cut at `count`, does not fit into `room` or the format is refused.
int snprintf_s(char* destination, std::size_t room, std::size_t count, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

}  // extern "C"
