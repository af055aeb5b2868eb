#pragma once

// Path operations over the plain POSIX calls. Without state and re-entrant; two threads that work on one tree
// race like any two users of a file system. A path is valid when it is not empty and has at most 4095
// characters. Statuses are 0 and 1. Complaints go to the log, or to standard output where a function serves
// the time before there is a log; never to the last-error record.

#include <set>
#include <string>

namespace vyn::common {

class FileUtil {
 public:
  static bool IsPathValid(const std::string& path);
  /// Valid, and made of ASCII letters, digits, "_", "-" and "/" only.
  static bool IsPathValidWhiteList(const std::string& path);
  /// Valid and there. A symbolic link counts as what it points to.
  static bool IsPathExist(const std::string& path);
  /// Whether this process may read and write the path.
  static bool IsPathWriteableAndReadable(const std::string& path);

  /// Resolves the path into `out`, which a failure leaves untouched. Complaints are logged.
  static unsigned int RealPath(const std::string& path, std::string& out);
  /// The same with complaints on standard output.
  static unsigned int RealPathNoLog(const std::string& path, std::string& out);

  /// Creates one directory level. What exists already is a success. Complaints on standard output.
  static unsigned int CreatePath(const std::string& path, unsigned int mode);
  /// The same with the missing parents, which get the same mode. Trailing "/" are taken as one level.
  static unsigned int RecursiveCreatePath(const std::string& path, unsigned int mode);

  /// Removes one file or empty directory. What does not exist is a success. Complaints on standard output.
  static unsigned int DeletePath(const std::string& path);
  /// Renames a directory to its name with "_deleted" behind and removes it with all it holds. A symbolic
  /// link, the path itself too, is removed as a link; what it points to is never entered. Entries that cannot
  /// be removed stay without a complaint.
  static unsigned int RecursiveDeletePath(const std::string& path);

  /// Adds the names of a directory's entries to `names`, "." and ".." left out.
  static unsigned int ListFiles(const std::string& dir, std::set<std::string>& names);
  /// Renames a path. A missing `from` is a success; `to` is not examined.
  static unsigned int Rename(const std::string& from, const std::string& to);
};

}  // namespace vyn::common
