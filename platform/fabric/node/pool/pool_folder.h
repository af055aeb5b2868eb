#pragma once

// The pool's folder: its lock, and the operations by which complete files appear in it and disappear from it
// atomically.
//
//   <pool>/<namespace>/.token   salted hash of the namespace's token
//   <pool>/<namespace>/<id>     one object
//   <pool>/<namespace>/.<id>    a symbolic link whose text is the object's size. It is replaced atomically,
//                               needs no page, and a client that has the object open cannot change it, as it
//                               can the length of the file
//   <pool>/.node/               files that are being made or removed, and pulled copies; cleared at Close and
//                               Open, so that what a killed process leaves stays until the next start
//
// Threads: any, between Open and Close.

#include "platform/fabric/node/pool/token_hash.h"
#include "platform/net/descriptor.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

namespace vyn::fabric {

class PoolFolder {
 public:
  static constexpr const char* kInternal = ".node";
  static constexpr const char* kTokenFile = ".token";

  /// Makes the folder when it is missing, locks it and clears its .node. Returns: false with `error` filled.
  bool Open(const std::string& path, std::string& error);
  /// Clears .node and releases the lock.
  void Close();

  int Descriptor() const { return mFolder.Get(); }
  int Internal() const { return mInternal.Get(); }
  /// Without symbolic links, absolute.
  const std::string& Path() const { return mPath; }

  /// A file of `size` zero bytes without a name, its pages reserved. Returns: invalid on failure; then
  /// `error` is errno.
  net::Descriptor MakeFile(std::uint64_t size, int& error) const;
  /// Gives such a file its name. Returns: 0 or errno.
  static int Publish(const net::Descriptor& file, int folder, const std::string& name);
  /// Reserves pages up to `size`. Returns: 0 or errno; then the file is as it was.
  static int Reserve(int file, std::uint64_t size);
  /// Removes the name. The pages are freed when the last descriptor and mapping are gone; `lastReference`
  /// receives the last descriptor of this process, so that the caller chooses when to free them.
  static void Remove(int folder, const std::string& name, net::Descriptor& lastReference);

  /// Stores or replaces an object's size. Returns: 0 or errno.
  int WriteSize(const std::string& space, const std::string& id, std::uint64_t size);
  /// Returns: false when no size is stored.
  bool ReadSize(const std::string& space, const std::string& id, std::uint64_t& size) const;
  void RemoveSize(const std::string& space, const std::string& id) const;

  /// Makes a namespace's folder with its token, atomically. Returns: 0 or errno.
  int MakeNamespace(const std::string& name, const TokenHash& token);
  /// Moves a namespace's folder to .node. \param hidden receives the argument for DeleteHidden. Returns: 0 or
  /// errno.
  int HideNamespace(const std::string& name, std::string& hidden);
  /// \param between called after every file; may be null.
  void DeleteHidden(const std::string& hidden, const std::function<void()>& between = nullptr) const;
  /// Returns: false when the namespace's folder has no token that could be read.
  bool ReadToken(const std::string& name, TokenHash& token) const;

 private:
  std::string UniqueName(const char* prefix);

  std::string mPath;
  net::Descriptor mFolder;    // holds the lock
  net::Descriptor mInternal;  // <pool>/.node
  std::atomic<std::uint64_t> mCount{0};
};

}  // namespace vyn::fabric
