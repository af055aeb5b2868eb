#pragma once

// The connection of a client: the socket, the stream over it, and the rules for connecting again after a
// failure.
//
// One thread uses a connection at a time. Any thread may call Abandon at the same time. A forked child that
// inherits a connection closes its copy of the socket without a message to the peer and connects anew.

#include "platform/net/blocking_stream.h"
#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"
#include "platform/rpc/client/transport_setting.h"
#include "platform/rpc/wire/message.h"
#include "platform/rpc/wire/rpc_frame_reader.h"
#include "platform/rpc/wire/rpc_outcome.h"
#include "platform/sync/fork.h"
#include "platform/sync/mutex.h"
#include "platform/tls/tls_context.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vyn::rpc {

class ClientConnection {
 public:
  ClientConnection(std::string ip, std::uint16_t port);
  ~ClientConnection();

  void SetReconnectLimit(int limit) { mReconnectLimit = limit; }
  /// Milliseconds for Connect; negative is no limit.
  void SetConnectTimeout(std::int64_t timeout) { mConnectTimeout = timeout; }
  /// From now on everything is sent under TLS. Requires: not open.
  void UseTls(std::shared_ptr<tls::TlsContext> context) { mTls = std::move(context); }
  /// From now on every attempt to connect ends in `refusal`; a successful outcome allows connecting again.
  void Refuse(RpcOutcome refusal) { mRefusal = std::move(refusal); }

  /// Connects again, with one attempt.
  RpcOutcome Connect();
  /// Connects again, with as many attempts as the reconnect limit allows while the peer refuses.
  RpcOutcome Reconnect(const net::Deadline& deadline);
  /// One call; connects first if there is no live connection.
  RpcOutcome Call(const Message& request, Message& response, const net::Deadline& deadline);
  /// Ends the call under way, and fails all later ones, with kConnectionLost. Does not end the wait for the
  /// peer's host to accept a connection.
  void Abandon();

 private:
  RpcOutcome Open(const net::Deadline& deadline);
  RpcOutcome Establish(const net::Deadline& deadline);
  RpcOutcome SendAndReceive(const Message& request, std::uint32_t length, Message& response,
                            const net::Deadline& deadline);
  RpcOutcome ReceiveReply(const RpcFrameHeader& sent, Message& response, const net::Deadline& deadline);
  /// The outcome of a wait of the stream.
  RpcOutcome OutcomeOf(net::IoStatus status);
  void Close();
  /// Puts the peer's name in front of the text of a failure.
  RpcOutcome WithPeerName(RpcOutcome outcome) const;

  const std::string mIp;
  const std::uint16_t mPort;
  TransportSetting mSetting;
  RpcOutcome mSettingOutcome;
  RpcOutcome mRefusal;
  int mReconnectLimit = 1;
  std::int64_t mConnectTimeout = -1;
  std::shared_ptr<tls::TlsContext> mTls;

  // The open connection; mStream is null when there is none.
  /// Only the connection's thread changes the socket, so that it reads it without the lock.
  net::Descriptor mSocket;
  sync::Mutex mSocketMutex;  ///< held to change the socket, and by Abandon
  bool mAbandoned VYN_GUARDED_BY(mSocketMutex) = false;
  std::unique_ptr<net::BlockingStream> mStream;
  std::atomic<std::uint32_t> mOwner{0};  ///< ForkCount of the process that opened mSocket
  net::Deadline::Clock::time_point mLastCallBegan{};
  std::optional<RpcFrameReader> mReader;
  std::uint32_t mPeerMaxLength = 0;
  std::uint64_t mLastCall = 0;
  std::vector<iovec> mParts;
};

}  // namespace vyn::rpc
