#pragma once

// The codes with which the node server and the metadata service refuse a request. They travel as the result
// word of a reply and stand in the logs of both sides; a typed client maps them to a code of its own. Odd,
// like every failure, and of a family that the library does not use (vyn/status.h).

#include "vyn/status.h"

#include <cstdint>

namespace vyn::services {

/// The service has no such operation.
inline constexpr std::uint32_t kStatusUnknownOperation = 2140001;
/// The request is well formed and makes no sense: a name that is no identifier, lists that do not pair, a
/// size of 0.
inline constexpr std::uint32_t kStatusInvalidRequest = 2140003;
/// The application is not registered at this node.
inline constexpr std::uint32_t kStatusNotRegistered = 2140005;
/// The token is not the application's.
inline constexpr std::uint32_t kStatusWrongToken = 2140007;
/// A block is said to lie on another node than its id says.
inline constexpr std::uint32_t kStatusWrongOwner = 2140009;
/// No such variable, or no such block in it.
inline constexpr std::uint32_t kStatusUnknownVariable = 2140011;
/// The variable exists with other blocks.
inline constexpr std::uint32_t kStatusVariableExists = 2140013;
/// The variable exists and its blocks are not known yet.
inline constexpr std::uint32_t kStatusNotReady = 2140015;
/// The record could not be written to or read from ZooKeeper. The caller does not know whether it was.
inline constexpr std::uint32_t kStatusStore = 2140017;
/// No metadata leader is known.
inline constexpr std::uint32_t kStatusNoLeader = 2140019;
/// The pool of this node refused.
inline constexpr std::uint32_t kStatusFabric = 2140021;
/// Local blobs are not served.
inline constexpr std::uint32_t kStatusNotServed = 2140023;
/// More than one record can hold.
inline constexpr std::uint32_t kStatusTooLarge = 2140025;
/// The application has as many variables or blocks as one may have.
inline constexpr std::uint32_t kStatusLimit = 2140027;

/// ZooKeeper did not answer a question, and nothing was written. To clients it is kStatusNotLeading.
inline constexpr std::uint32_t kStatusUnanswered = 2140029;
/// This node does not lead any more, or cannot tell. To clients it is a lost connection: they ask who leads and try again.
inline constexpr std::uint32_t kStatusNotLeading = VYN_ERR_RPC_TRANSPORT_A;

/// Returns: the words for a code that a service answers, "unknown status" for any other.
const char* StatusText(std::uint32_t status);

}  // namespace vyn::services
