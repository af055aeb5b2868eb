#pragma once

// Reads and writes files without mapping them: when somebody makes the file shorter meanwhile, that is an
// error here and not a SIGBUS. Threads: no state, any thread.

#include <cstddef>
#include <cstdint>
#include <functional>

namespace vyn::fabric {

/// Bytes that are moved at a time: they stay in the cache of a core between being read and being written.
inline constexpr std::size_t kFileBlock = 256U << 10U;

/// Reads exactly `length` bytes at `offset`. Returns: false when the file is shorter or cannot be read, with
/// errno set.
bool ReadFile(int file, void* buffer, std::size_t length, std::uint64_t offset);

/// Writes exactly `length` bytes at `offset`. Returns: false on failure, with errno set.
bool WriteFile(int file, const void* buffer, std::size_t length, std::uint64_t offset);

/// Copies between files, which may be the same one under two descriptors; its ranges may then overlap.
/// \param source, destination the descriptors. \param buffer of kFileBlock bytes. \param between called after
/// every block when it is not null; false ends the copy. Returns: false on failure, with errno set.
bool CopyFile(int source, std::uint64_t sourceOffset, int destination, std::uint64_t destinationOffset,
              std::uint64_t length, char* buffer, const std::function<bool()>& between = nullptr);

}  // namespace vyn::fabric
