#pragma once

// A listening socket and the connections that came in by it, each served by a thread of its own. Most
// connections are idle most of the time: a process keeps one for each thread that was in a call at once.
//
// When the door is full, or one peer has its fill, the connection idle longest gives way to the new one; when
// none is idle the new one is closed at once. A connection broken or closed makes its client connect again.

#include "platform/fabric/protocol/socket_stream.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace vyn::bm {

class Door {
 public:
  struct Limits {
    std::uint32_t connections;
    std::uint32_t perPeer;
  };
  /// Serves one connection to its end. \param peer its address or user. \param busy tells whether a request
  /// is under way.
  using Serve = std::function<void(SocketStream& stream, const std::string& peer,
                                   const std::function<void(bool)>& busy)>;

  /// \param link a TCP door, whose peers are told apart by address; otherwise a UNIX door, by user.
  Door(FileDescriptor listener, bool link, Limits limits, Serve serve);
  /// Stops listening, ends all connections and waits for their threads.
  ~Door();
  Door(const Door&) = delete;
  Door& operator=(const Door&) = delete;

  std::size_t Connections() const;

 private:
  struct Connection {
    Connection(FileDescriptor socket, std::string thePeer)
        : stream(std::move(socket)), peer(std::move(thePeer)) {}
    SocketStream stream;
    const std::string peer;
    std::atomic<std::int64_t> idleSince{0};  // of the steady clock; 0 while a request is under way
    bool leaving = false;                    // was told to go; guarded by mMutex
    std::thread thread;
  };
  using ConnectionList = std::list<std::unique_ptr<Connection>>;

  void Listen();
  void Admit(FileDescriptor socket);
  void Run(Connection& connection);
  /// Connections that were not told to go, of a peer or, with null, of all. Requires: mMutex is held.
  std::size_t Staying(const std::string* peer) const;
  /// Requires: mMutex is held. \param peer null for any. Returns: whether one was told to go.
  bool EndIdlest(const std::string* peer);
  std::string PeerOf(int socket) const;
  void JoinFinished();
  void Wake();

  const FileDescriptor mListener;
  const bool mLink;
  const Limits mLimits;
  const Serve mServe;
  FileDescriptor mWake;  // an eventfd: something changed for the listening thread
  std::atomic<bool> mStopping{false};
  mutable std::mutex mMutex;  // guards the two below
  ConnectionList mConnections;
  ConnectionList mFinished;  // their threads are at their end
  std::condition_variable mEmpty;
  std::thread mThread;
};

}  // namespace vyn::bm
