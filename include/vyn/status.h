#pragma once

// Status codes of Vyn broadcast.
//
// Every call that can fail returns an unsigned 32-bit status. VYN_OK (0) is success. A failure has bit 0 set:
// test it with vyn::Failed(), never by comparing with 0. Each family of codes starts at a multiple of 20000
// from 2000000 on. Within a family codes advance by 2, so that every failure is odd.
//
// This header is plain C++17, needs no library and may be included anywhere.

#include <cstdint>

inline constexpr std::uint32_t VYN_OK = 0;
/// Unspecified failure: an argument was refused, or an internal step without a code of its own failed.
inline constexpr std::uint32_t VYN_ERR_GENERIC = 1;

// --- common ------------------------------------------------------------------------------------------------
/// A received request does not consist of exactly one buffer, or is too short to hold its version.
inline constexpr std::uint32_t VYN_ERR_REQUEST_SHAPE = 2000005;
/// An argument breaks its rule: identifier not matching its pattern, zero count, port outside 1 to 32767.
inline constexpr std::uint32_t VYN_ERR_INVALID_PARAM = 2000013;
/// No ":" in an address, or its port is not a number.
inline constexpr std::uint32_t VYN_ERR_PARSE_PORT = 2000039;
/// ZooKeeper has no record of that node.
inline constexpr std::uint32_t VYN_ERR_ZK_NO_NODE = 2000045;
/// ZooKeeper did not answer in time: not connected, try again.
inline constexpr std::uint32_t VYN_ERR_ZK_UNCONNECTED = 2000047;
/// The connection to ZooKeeper was lost, or a node's record could not be read.
inline constexpr std::uint32_t VYN_ERR_ZK_CONNECTION_LOSS = 2000049;
/// The TLS connection to ZooKeeper failed.
inline constexpr std::uint32_t VYN_ERR_ZK_SSL = 2000051;
/// The ZooKeeper session is gone: the client must be created again.
inline constexpr std::uint32_t VYN_ERR_ZK_SESSION_EXPIRED = 2000053;
/// Any other ZooKeeper failure.
inline constexpr std::uint32_t VYN_ERR_ZK_OTHER = 2000055;
/// An allocation failed, or a required object or handle is absent.
inline constexpr std::uint32_t VYN_ERR_NULL_POINTER = 2000057;
/// The configuration file does not exist.
inline constexpr std::uint32_t VYN_ERR_CONF_FILE_MISSING = 2000059;

// --- RPC ---------------------------------------------------------------------------------------------------
/// A request of a higher protocol version than this side speaks.
inline constexpr std::uint32_t VYN_ERR_RPC_VERSION = 2020009;
/// A message is absent, empty, damaged or lacks a required field.
inline constexpr std::uint32_t VYN_ERR_MESSAGE_DECODE = 2020015;
/// Transport failure: connection refused, reset or lost. Retried by the metadata client.
inline constexpr std::uint32_t VYN_ERR_RPC_TRANSPORT_A = 2020019;
/// Transport failure: time-out, or the reconnect failed. Retried by the metadata client.
inline constexpr std::uint32_t VYN_ERR_RPC_TRANSPORT_B = 2020021;
/// Any other transport failure.
inline constexpr std::uint32_t VYN_ERR_RPC_TRANSPORT_OTHER = 2020023;
/// A call to the tuning service failed.
inline constexpr std::uint32_t VYN_ERR_TUNING_RPC = 2020025;

// --- metadata service --------------------------------------------------------------------------------------
/// The metadata client could not connect its pool.
inline constexpr std::uint32_t VYN_ERR_META_POOL_INIT = 2060007;
/// A call to the metadata service, or a heartbeat to the tuning service, failed. The log has the cause.
inline constexpr std::uint32_t VYN_ERR_META_RPC = 2060009;
/// An answer of the metadata service to a batch of new bags, returned unchanged.
inline constexpr std::uint32_t VYN_ERR_META_BAG_REPLY = 2060203;

// --- big memory --------------------------------------------------------------------------------------------
/// A big-memory operation refused an argument.
inline constexpr std::uint32_t VYN_ERR_BM_INVALID = 2080001;
/// The big-memory client library could not be loaded.
inline constexpr std::uint32_t VYN_ERR_BM_INIT = 2080003;
/// The records of a swap-in are incomplete.
inline constexpr std::uint32_t VYN_ERR_BM_SWAP_PARAM = 2080005;
/// A big-memory call failed with the client library's own error.
inline constexpr std::uint32_t VYN_ERR_BM_CALL = 2080007;
/// A service operation found no client of the node server.
inline constexpr std::uint32_t VYN_ERR_SERVER_CLIENT = 2080009;
/// A service operation found no client of the metadata service.
inline constexpr std::uint32_t VYN_ERR_META_CLIENT = 2080011;
/// A data movement failed on the remote side.
inline constexpr std::uint32_t VYN_ERR_BM_REMOTE = 2080019;
/// A data movement or the query of the node id failed locally.
inline constexpr std::uint32_t VYN_ERR_BM_LOCAL = 2080021;
/// libbmclient.so could not be initialised.
inline constexpr std::uint32_t VYN_ERR_BM_UNAVAILABLE = 2100021;
/// A block could not be allocated.
inline constexpr std::uint32_t VYN_ERR_BLOCK_ALLOC = 2100029;
/// The memory pool has no room for the block. The caller may wait and try again.
inline constexpr std::uint32_t VYN_ERR_OUT_OF_POOL_MEMORY = 2100041;

// --- broadcast SDK -----------------------------------------------------------------------------------------
/// An exported broadcast function refused an argument.
inline constexpr std::uint32_t VYN_ERR_BC_INVALID_PARAM = 2120001;
/// The metadata service did not say whether this node belongs to the memory fabric.
inline constexpr std::uint32_t VYN_ERR_BC_MF_NODE = 2120003;
/// A remote block could not be read or written.
inline constexpr std::uint32_t VYN_ERR_BC_REMOTE_BLOCK = 2120007;
/// There is no client of the node server.
inline constexpr std::uint32_t VYN_ERR_BC_SERVER_CLIENT = 2120009;
/// There is no client of the metadata service.
inline constexpr std::uint32_t VYN_ERR_BC_META_CLIENT = 2120011;
/// An exported function failed after it had found its clients.
inline constexpr std::uint32_t VYN_ERR_BC_INTERNAL = 2120013;
/// The application's namespace could not be created on the chosen node.
inline constexpr std::uint32_t VYN_ERR_BC_NAMESPACE = 2120023;
/// The chosen node could not be linked.
inline constexpr std::uint32_t VYN_ERR_BC_LINK = 2120025;
/// Blocks could not be allocated on the chosen node.
inline constexpr std::uint32_t VYN_ERR_BC_REMOTE_ALLOC = 2120027;

namespace vyn {

/// Whether `status` is a failure.
[[nodiscard]] constexpr bool Failed(std::uint32_t status) noexcept { return (status & 1U) != 0; }

}  // namespace vyn
