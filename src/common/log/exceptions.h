#pragma once

// Converts an exception into a status, for exported functions and for threads, which no exception may leave.
// Any thread may call it.

namespace vyn::common {

/// Call it in a catch clause. Logs "<where>: <the exception's text>" unless there is no memory for the line.
/// Returns: 2000057 when an allocation failed, 1 for every other exception.
unsigned int StatusOfException(const char* where) noexcept;

}  // namespace vyn::common
