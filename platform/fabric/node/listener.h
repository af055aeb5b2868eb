#pragma once

// A listening socket and the connections that it accepted. Each connection has a thread of its own. Most
// connections are idle most of the time: a client process keeps as many open as its threads once used at the
// same time.
//
// When the limit of connections is reached, in all or for one peer, the connection that has been idle longest
// is closed in favour of the new one; when none is idle, the new one is closed at once. A client whose
// connection was closed connects again.
//
// Threads: any thread may call Connections; one makes and ends the object. `Serve` runs on the connections'
// threads, several at once.

#include "platform/fabric/transport/socket_stream.h"
#include "platform/sync/mutex.h"

#include <atomic>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <thread>

namespace vyn::fabric {

class Listener {
 public:
  struct Limits {
    std::uint32_t connections;
    std::uint32_t perPeer;
  };
  /// Serves one connection to its end. \param peer its address or user. \param busy to be told whether a
  /// request is in progress.
  using Serve = std::function<void(SocketStream& stream, const std::string& peer,
                                   const std::function<void(bool)>& busy)>;

  /// \param link whether `socket` is a TCP socket, whose peers are told apart by address; otherwise it is a
  /// UNIX socket, and they are told apart by user.
  Listener(net::Descriptor socket, bool link, Limits limits, Serve serve);
  /// Stops listening, ends all connections and waits for their threads.
  ~Listener();
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  std::size_t Connections() const;

 private:
  struct Connection {
    Connection(net::Descriptor socket, std::string thePeer)
        : stream(std::move(socket)), peer(std::move(thePeer)) {}
    SocketStream stream;
    const std::string peer;
    std::atomic<std::int64_t> idleSince{0};  // of the steady clock; 0 while a request is in progress
    /// Read and written under the listener's mMutex. Clang cannot check that: the mutex is a member of
    /// another object.
    bool closing = false;
    std::thread thread;
  };
  using ConnectionList = std::list<std::unique_ptr<Connection>>;

  void Listen();
  void Admit(net::Descriptor socket);
  void Run(Connection& connection);
  /// Connections that are not closing, of a peer or, with null, of all.
  std::size_t CountOpen(const std::string* peer) const VYN_REQUIRES(mMutex);
  /// \param peer null for any. Returns: whether one was closed.
  bool CloseIdlest(const std::string* peer) VYN_REQUIRES(mMutex);
  std::string PeerOf(int socket) const;
  void JoinFinished();
  void Wake();

  const net::Descriptor mSocket;
  const bool mLink;
  const Limits mLimits;
  const Serve mServe;
  net::Descriptor mWake;  // an eventfd: something changed for the listening thread
  std::atomic<bool> mStopping{false};
  mutable sync::Mutex mMutex;
  ConnectionList mConnections VYN_GUARDED_BY(mMutex);
  ConnectionList mFinished
      VYN_GUARDED_BY(mMutex);  // connections that have ended, whose threads are still to be joined
  sync::Condition mEmpty;
  std::thread mThread;
};

}  // namespace vyn::fabric
