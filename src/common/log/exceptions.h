#pragma once

// Where exceptions end: at the functions that leave the library, and in the threads that it starts.

namespace vyn::common {

/// To be called in a catch clause. Logs "<where>: <the exception's text>", as far as there is memory for the line.
/// Returns: 2000057 when an allocation failed, 1 for every other exception.
unsigned int StatusOfException(const char* where) noexcept;

}  // namespace vyn::common
