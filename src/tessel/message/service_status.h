#pragma once

// The statuses with which the node server and the metadata service refuse a request. A reply carries the
// status in its result field, and both sides log it, unless the caller has expected it. A typed client may
// replace it by a status of its own. The statuses are odd, like every failure, and from a range that
// vyn/status.h does not use. Those that vyn/variable.h promises have their numbers there.

#include "vyn/status.h"
#include "vyn/variable.h"

#include <cstdint>

namespace vyn::tessel::service_status {

/// The service has no such operation.
inline constexpr std::uint32_t kStatusUnknownOperation = 2140001;
/// The request can be parsed but is invalid: for example a name that is no identifier, lists of different
/// lengths, or a size of 0.
inline constexpr std::uint32_t kStatusInvalidRequest = 2140003;
/// The application is not registered at this node.
inline constexpr std::uint32_t kStatusNotRegistered = VYN_VARIABLE_NOT_REGISTERED;
/// The token differs from the one that the application's first registration fixed.
inline constexpr std::uint32_t kStatusWrongToken = VYN_VARIABLE_WRONG_TOKEN;
/// The request names another node for a block than the block's id does.
inline constexpr std::uint32_t kStatusWrongOwner = 2140009;
/// No such variable, or no such block in it.
inline constexpr std::uint32_t kStatusUnknownVariable = VYN_VARIABLE_UNKNOWN;
/// The variable exists with other blocks.
inline constexpr std::uint32_t kStatusVariableExists = VYN_VARIABLE_EXISTS;
/// The variable exists and its blocks are not known yet.
inline constexpr std::uint32_t kStatusNotReady = VYN_VARIABLE_NOT_PUBLISHED;
/// ZooKeeper failed to read or write a record. The write may have taken effect.
inline constexpr std::uint32_t kStatusStore = 2140017;
/// No metadata leader is known.
inline constexpr std::uint32_t kStatusNoLeader = 2140019;
/// The pool of this node failed.
inline constexpr std::uint32_t kStatusFabric = 2140021;
/// Local blobs are not served.
inline constexpr std::uint32_t kStatusNotServed = 2140023;
/// The block list is too long for one record, or a CHECK_VALID_APP has too many names that the leader does
/// not know.
inline constexpr std::uint32_t kStatusTooLarge = 2140025;
/// The application has reached its limit of variables or blocks.
inline constexpr std::uint32_t kStatusLimit = VYN_VARIABLE_LIMIT;

/// A newer build has written a record in a format that this build cannot read. This build does not lead.
inline constexpr std::uint32_t kStatusNewerRecord = 2140031;

/// The node that is to have the blocks of a record does not have all of them, or has them in other sizes.
inline constexpr std::uint32_t kStatusBlocksDiffer = 2140033;
/// The leader could not ask the node whether it has the blocks of a record. Nothing was written; the call may
/// be repeated.
inline constexpr std::uint32_t kStatusNodeUnreachable = 2140035;

/// A live node has not forgotten a deleted variable of this number, or the application that has ended under
/// this name. Nothing was written; the call may be repeated. The leader's log names the node.
inline constexpr std::uint32_t kStatusNotForgotten = 2140037;

/// ZooKeeper did not answer a read. Nothing was written. Clients get kStatusNotLeading instead.
inline constexpr std::uint32_t kStatusUnanswered = 2140029;
/// This node no longer leads, or cannot find out whether it does. Clients treat it as a lost connection: they
/// ask for the leader again and retry.
inline constexpr std::uint32_t kStatusNotLeading = VYN_ERR_RPC_TRANSPORT_A;

}  // namespace vyn::tessel::service_status
