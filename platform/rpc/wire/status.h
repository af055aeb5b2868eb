#pragma once

// The statuses of the transport. They are signed, 0 is success, and they are used inside the RPC layer only:
// RpcEngine translates them into the system's codes.

#include <cstdint>
#include <string>

namespace vyn::rpc {

inline constexpr std::int32_t kOk = 0;
/// The server's handler ended without an answer.
inline constexpr std::int32_t kNoAnswer = -5;
/// The server has no handler for the message id.
inline constexpr std::int32_t kNoHandler = -6;
/// The peer's bytes are not this protocol, or a version of it that this side does not speak.
inline constexpr std::int32_t kProtocolError = -8;
/// The message is longer than one of the two sides accepts. Nothing was sent.
inline constexpr std::int32_t kMessageTooLong = -9;
/// The server refused the connection because it has too many. No call has run; trying again is safe.
inline constexpr std::int32_t kBusy = -11;
/// An allocation failed.
inline constexpr std::int32_t kNoMemory = -12;
/// The TLS handshake failed: no common ground, or the peer's certificate was refused.
inline constexpr std::int32_t kTlsError = -13;
/// The transport's settings cannot be honoured: no engine for the protocol, no such interface, no free port.
inline constexpr std::int32_t kBadSetting = -14;
/// A null argument, a buffer without an address, or a client that was never initialised.
inline constexpr std::int32_t kInvalidArgument = -15;
/// The connection was refused, reset or lost. A call that was under way may or may not have run.
inline constexpr std::int32_t kConnectionLost = -19;
/// The time limit of the call has passed. It may or may not have run.
inline constexpr std::int32_t kTimedOut = -21;

}  // namespace vyn::rpc

/// Returns: a printable text for a status of the transport, also for one that does not exist.
std::string VynRpcStatusString(int status);
