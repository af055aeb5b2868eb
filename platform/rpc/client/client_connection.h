#pragma once

// What stands behind a client: the socket, the stream over it, and the rules by which a broken connection is
// made anew.
//
// One thread uses a connection at a time.

#include "platform/net/deadline.h"
#include "platform/net/descriptor.h"
#include "platform/net/stream.h"
#include "platform/net/transport_setting.h"
#include "platform/rpc/wire/frame_reader.h"
#include "platform/rpc/wire/message.h"
#include "platform/rpc/wire/outcome.h"
#include "platform/tls/tls_context.h"

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
  /// From here on nothing is sent outside TLS. Requires: not open.
  void UseTls(std::shared_ptr<tls::TlsContext> context) { mTls = std::move(context); }
  /// From here on every attempt to connect ends in `refusal`; a success takes it back.
  void Refuse(Outcome refusal) { mRefusal = std::move(refusal); }

  /// Makes the connection anew, with one attempt.
  Outcome Connect();
  /// Makes the connection anew, with as many attempts as the reconnect limit allows while the peer refuses.
  Outcome Reconnect(const Deadline& deadline);
  /// One call; connects first if there is no live connection.
  Outcome Call(const Message& request, Message& response, const Deadline& deadline);

 private:
  Outcome Open(const Deadline& deadline);
  Outcome Establish(const Deadline& deadline);
  /// Gives a plain socket its time limits, by which reads and writes can wait without a poll.
  Outcome MakeWaiting() const;
  Outcome Exchange(const Message& request, std::uint32_t length, Message& response, const Deadline& deadline);
  Outcome Send(std::vector<iovec>& parts, const Deadline& deadline);
  Outcome ReceiveExactly(void* data, std::size_t size, const Deadline& deadline);
  Outcome ReceiveReply(const FrameHeader& sent, Message& response, const Deadline& deadline);
  /// For a step that did not complete: waits for the socket, or tells what the stream died of.
  Outcome After(IoState state, const Deadline& deadline);
  void Close();
  /// Puts the peer's name in front of the words of a failure.
  Outcome Named(Outcome outcome) const;

  const std::string mIp;
  const std::uint16_t mPort;
  TransportSetting mSetting;
  Outcome mSettingOutcome;
  Outcome mRefusal;
  int mReconnectLimit = 1;
  std::int64_t mConnectTimeout = -1;
  std::shared_ptr<tls::TlsContext> mTls;

  // The open connection; mStream is null when there is none.
  Descriptor mSocket;
  std::unique_ptr<Stream> mStream;
  PlainStream* mPlain = nullptr;  // the stream, if it can wait by itself
  Deadline::Clock::time_point mLastBegin{};
  std::optional<FrameReader> mReader;
  std::uint32_t mPeerMaxLength = 0;
  std::uint64_t mLastCall = 0;
  std::vector<iovec> mParts;
};

}  // namespace vyn::rpc
