#pragma once

// The server's end: many connections, handlers by message id, replies from any thread.
//
//   Server server(options);
//   server.Register(MessageId(kPing), [](const auto& context, const auto& request) {
//     Message reply(request->Id());
//     ...
//     Server::Reply(context, &reply, nullptr);
//   });
//   if (!server.Start("127.0.0.1", 0)) { ... Server::mLastErrorMessage ... }
//
// Requests of one connection may be pipelined; each is answered when its handler replies, in any order. A
// client's bytes can end its own connection and nothing else. Requests that a client sends faster than they
// are answered stay in its socket: a connection with too many unanswered requests is not read from, and no
// queue grows without bound. Threads: any, after Start.

#include "platform/rpc/server/context.h"
#include "platform/rpc/wire/message.h"
#include "platform/rpc/wire/status.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>

namespace vyn::rpc {

class ServerCore;

struct ServerOptions {
  /// TLS 1.3 only, by these entries of mSecurity: "tls.cert.path" (chain, PEM), "tls.key.path" (PEM),
  /// "tls.key.encrypted"
  /// ("true" or "false") and, when encrypted, "tls.key.pass.path" (a file with the password in its first
  /// line).
  bool mTls = false;
  /// Refused at Start until a mechanism exists behind "auth.type".
  bool mAuthentication = false;
  std::map<std::string, const std::string> mSecurity;

  /// Threads that remain for reading, writing and the quick handlers, however many handlers block. 1 to 64.
  unsigned int mIoThreads = 2;
  /// Handlers that may block and run at once, each on a thread of its own. 1 to 1024.
  unsigned int mWorkerThreads = 8;
  /// The longest frame accepted, without its header, in bytes. At most 2 GiB less 1 MiB.
  std::size_t mMaxFrameLength = std::size_t{64} << 20;
  /// A connection beyond this number is answered kBusy and closed.
  std::size_t mMaxConnections = 4096;
  /// Unanswered requests of one connection; at this number the connection is not read from.
  std::size_t mMaxPendingCalls = 64;
  /// Bytes of all connections together: of requests that have begun to arrive or are unanswered, and of
  /// replies that wait to be written. Above the limit no connection begins a new request, which is reported.
  /// When the waiting replies alone fill the limit, one more reply that has to wait ends its connection. A
  /// connection's read buffer, with frames of at most 128 KiB, does not count.
  std::size_t mMaxPendingBytes = std::size_t{512} << 20;
  /// Milliseconds from accept to the end of the greeting, TLS included.
  std::int64_t mHandshakeTimeout = 10000;
  /// Milliseconds that a connection may be without a request or an open reply. 0 is no limit.
  std::int64_t mIdleTimeout = 600000;
  /// Milliseconds for a frame that has begun to arrive to be complete, and for a client to read some bytes of
  /// a waiting reply.
  std::int64_t mFrameTimeout = 60000;
  /// Milliseconds that Stop waits for calls that are running.
  std::int64_t mStopTimeout = 10000;
  /// Receives one line for every connection that fails and for every other event that concerns an operator.
  /// Called from any thread of the server; must not block. May be empty.
  std::function<void(const std::string& line)> mReport;
};

/// Handles a request, and calls Server::Reply once, now or later. An exception that leaves it is reported,
/// and the caller gets kNoAnswer unless the context is kept.
using RequestHandler = std::function<void(const std::shared_ptr<ServerContext>& context,
                                          const std::shared_ptr<Message>& request)>;

enum class HandlerKind {
  kMayBlock,  ///< runs when the thread that read the request has nothing else to do, or on another one
  kQuick,     ///< runs at once on the thread that read the request; must never block
};

class Server {
 public:
  explicit Server(ServerOptions options = {});
  /// Stops.
  ~Server();
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  /// Requires: not started. The later registration of an id wins.
  void Register(MessageId id, RequestHandler handler, HandlerKind kind = HandlerKind::kMayBlock);

  /// Listens and serves. \param address an IPv4 or IPv6 address in text form. \param port 0 picks a free one.
  /// Returns: false if that is not possible, with the reason in mLastErrorMessage. A server starts once.
  bool Start(const std::string& address, unsigned short port);
  /// The port listened on; 0 before Start.
  unsigned short Port() const;
  /// Connections that are open now.
  std::size_t Connections() const;

  /// Accepts no more connections and requests, waits at most mStopTimeout for the answers of running calls,
  /// then closes every connection and ends the threads. Waits for handlers that are running, and for another
  /// thread that is in Stop. Must not be called from a handler.
  void Stop();

  /// Sends the reply to the request of `context`; any thread, once. Bytes that the socket does not take at
  /// once are copied and sent by the server within the context's timeout; buffers that own their memory are
  /// moved instead of copied. \param callback may be null; is called when the last byte was written or the
  /// reply failed. Returns: true when the reply was sent or is being sent; false with `context->mStatus` set
  /// when the connection is gone, the reply is too long, or the request was answered before.
  static bool Reply(std::shared_ptr<ServerContext> context, Message* message, Callback* callback);

  /// The reason why the thread's last failed Start failed.
  static thread_local std::string mLastErrorMessage;

 private:
  std::shared_ptr<ServerCore> mCore;
};

}  // namespace vyn::rpc
