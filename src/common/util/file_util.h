#pragma once

// File operations by POSIX calls. No state: any thread may call them, but nothing synchronises two threads
// that change the same directory. A path is valid when it is not empty and has at most 4095 characters.
// Statuses are 0 and 1. Errors are logged, or printed to standard output by functions that run before the
// logger. No function writes the last-error record.

#include <set>
#include <string>

namespace vyn::common {

class FileUtil {
 public:
  static bool IsPathValid(const std::string& path);
  /// Valid, and made of ASCII letters, digits, "_", "-" and "/" only.
  static bool IsPathValidWhiteList(const std::string& path);
  /// Whether the path is valid and exists. Follows a symbolic link.
  static bool IsPathExist(const std::string& path);
  /// Whether this process may read and write the path.
  static bool IsPathWriteableAndReadable(const std::string& path);

  /// Stores the real path in `out`; a failure leaves `out` unchanged and is logged.
  static unsigned int RealPath(const std::string& path, std::string& out);
  /// The same, but prints a failure to standard output.
  static unsigned int RealPathNoLog(const std::string& path, std::string& out);

  /// Creates one directory. An existing path is a success. Prints an invalid path to standard output.
  static unsigned int CreatePath(const std::string& path, unsigned int mode);
  /// The same for the directory and its missing parents, all with `mode`. Prints a directory that cannot be
  /// created, too. Trailing slashes do not matter.
  static unsigned int RecursiveCreatePath(const std::string& path, unsigned int mode);

  /// Removes one file or empty directory. A missing path is a success. Prints an invalid path to standard
  /// output.
  static unsigned int DeletePath(const std::string& path);
  /// Appends "_deleted" to a directory's name and removes the directory with its contents. Removes symbolic
  /// links, also `path` itself, but does not follow them. Ignores entries that cannot be removed.
  static unsigned int RecursiveDeletePath(const std::string& path);

  /// Adds the names of a directory's entries to `names`, except "." and "..".
  static unsigned int ListFiles(const std::string& dir, std::set<std::string>& names);
  /// Renames a path. A missing `from` is a success. `to` is not checked.
  static unsigned int Rename(const std::string& from, const std::string& to);
};

}  // namespace vyn::common
