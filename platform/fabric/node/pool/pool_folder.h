#pragma once

// The pool's folder: its lock, and how files appear in it whole and leave it at once.
//
//   <pool>/<namespace>/.token   salted hash of the namespace's token
//   <pool>/<namespace>/<id>     one object
//   <pool>/<namespace>/.<id>    a symbolic link whose text is the object's size: it is replaced at once and
//                               takes no page, and whoever holds the object cannot change it, as he can the
//                               length of the file
//   <pool>/.node/               what is on its way in or out, and pulled copies; cleared at Close and
//                               Open: what a killed process left stands until the next start
//
// Threads: any, between Open and Close.

#include "platform/fabric/node/pool/token_hash.h"
#include "platform/fabric/protocol/file_descriptor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace vyn::bm {

class PoolFolder {
 public:
  static constexpr const char* kInternal = ".node";
  static constexpr const char* kTokenFile = ".token";

  /// Makes the folder when it is missing, locks it and clears its .node. Returns: false with `error` filled.
  bool Open(const std::string& path, std::string& error);
  /// Clears .node and lets the lock go.
  void Close();

  int Descriptor() const { return mFolder.Get(); }
  int Internal() const { return mInternal.Get(); }
  /// Without symbolic links, absolute.
  const std::string& Path() const { return mPath; }

  /// A file of `size` zero bytes without a name, its pages reserved. Returns: invalid on failure; then
  /// `error` is errno.
  FileDescriptor MakeFile(std::uint64_t size, int& error) const;
  /// Gives such a file its name. Returns: 0 or errno.
  static int Publish(const FileDescriptor& file, int folder, const std::string& name);
  /// Reserves pages up to `size`. Returns: 0 or errno; then the file is as it was.
  static int Reserve(int file, std::uint64_t size);
  /// Takes the name away. The pages are freed when the last descriptor and mapping are gone; the last of our
  /// own is `keeper`, so that the caller frees them where it wants to.
  static void Remove(int folder, const std::string& name, FileDescriptor& keeper);

  /// Writes down, or replaces, an object's size. Returns: 0 or errno.
  int WriteSize(const std::string& space, const std::string& id, std::uint64_t size);
  /// Returns: false when no size was written down.
  bool ReadSize(const std::string& space, const std::string& id, std::uint64_t& size) const;
  void RemoveSize(const std::string& space, const std::string& id) const;

  /// Makes a namespace's folder with its token, whole. Returns: 0 or errno.
  int MakeNamespace(const std::string& name, const TokenHash& token);
  /// Takes a namespace's folder out of sight. \param gone receives what DeleteGone needs. Returns: 0 or
  /// errno.
  int HideNamespace(const std::string& name, std::string& gone);
  /// \param between called after every file; may be null.
  void DeleteGone(const std::string& gone, const std::function<void()>& between = nullptr) const;
  /// Returns: false when the namespace's folder has no token that could be read.
  bool ReadToken(const std::string& name, TokenHash& token) const;

 private:
  std::string UniqueName(const char* prefix);

  std::string mPath;
  FileDescriptor mFolder;    // holds the lock
  FileDescriptor mInternal;  // <pool>/.node
  std::atomic<std::uint64_t> mCount{0};
};

}  // namespace vyn::bm
