#pragma once

// The state of one call beside its messages: its time limit, and how it ended. Threads: one at a time, unless
// a class says otherwise.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace vyn::rpc {

/// The base of objects that are never copied and may be destroyed through a base.
class Reference {
 public:
  Reference() = default;
  virtual ~Reference() = default;
  Reference(const Reference&) = delete;
  Reference& operator=(const Reference&) = delete;
};

class Context : public Reference {
 public:
  /// Milliseconds; negative is no limit.
  std::int64_t mTimeout = 0;
  /// How the operation ended: 0, or a status of platform/rpc/wire/status.h.
  std::int32_t mStatus = 0;
};

/// The context of a client's call; a stack object.
class ClientContext : public Context {};

/// Called once, when an operation has ended.
class Callback {
 public:
  virtual ~Callback() = default;
  /// \param status 0, or a status of platform/rpc/wire/status.h. May run on any thread; must not block.
  virtual void Done(int status) = 0;
};

class Server;
class ServerConnection;

/// The context of a request: names the connection that the reply goes to. A handler may keep it and reply
/// later, from any thread. When the last reference is dropped without a reply, the server answers kNoAnswer.
class ServerContext : public Context {
 public:
  /// For the server only.
  ServerContext(std::shared_ptr<ServerConnection> connection, Server* server, std::uint64_t call,
                std::uint32_t id, std::uint64_t requestLength);
  ~ServerContext() override;

  /// The server that the request came to. Valid while that object is.
  Server* GetServer() const { return mServer; }
  /// The caller as "ip:port".
  std::string PeerAddress() const;

 private:
  friend class Server;

  std::shared_ptr<ServerConnection> mConnection;
  Server* mServer;
  std::uint64_t mCall;
  std::uint32_t mId;
  std::uint64_t mRequestLength;
  std::atomic<bool> mReplied{false};
};

}  // namespace vyn::rpc
