#pragma once

// Whether an object's bytes can change, and whether they may have changed: what a node must know before it
// serves a copy that another node keeps. Threads: no state, any thread.

#include <cstdint>
#include <functional>

namespace vyn::fabric {

/// Whether any process has the file open for writing, or mapped from such a descriptor. The kernel then
/// refuses a read lease. Also true when the kernel gives no leases (/proc/sys/fs/leases-enable is 0).
/// \param file open for reading only. This process owns the file.
bool IsOpenForWriting(int file);

/// The stamp of a file: its modification time in nanoseconds. It outlives the node.
std::uint64_t StampOf(int file);
/// The stamp of an object that nobody has opened for writing yet.
constexpr std::uint64_t kUnwrittenStamp = 1;
/// Gives the file a stamp that it did not have before. Returns: false on failure, with errno set.
bool NewStamp(int file);
/// Gives it kUnwrittenStamp. Returns: as NewStamp.
bool SetUnwritten(int file);

/// The checksum of a file's first `size` bytes. \param between called after every block; false ends the
/// reading. Returns: false when it was ended, or when the file is shorter or cannot be read.
bool ChecksumOf(int file, std::uint64_t size, const std::function<bool()>& between, std::uint64_t& checksum);

}  // namespace vyn::fabric
