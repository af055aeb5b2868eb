#pragma once

// The protocol between a client of the memory fabric and a fabric node: places, frames, operations, time
// limits. results.h has the results, names.h the names.
//
// A node listens at two places; both speak the frames below.
//
//   Broker   The UNIX socket <home>/run/bm_broker.sock, for the processes of the node's machine. The folder
//            has mode 0755 and the socket 0666: every user of the machine may connect, and what a caller may
//            reach is decided by the namespace and the token of each request. The broker hands out file
//            descriptors, and forwards what concerns another node's objects.
//   Link     A TCP port, for processes outside the fabric and for other nodes. A link forwards nothing: it
//            serves the node's own objects, and answers kState for the node's copies. Plain or under TLS 1.3,
//            as the node is set. The node sends a peer that differs the answer to a hello with
//            kBmRemoteProtocol, in a plain frame, and closes the connection.
//
// Conversation. The client opens with kHello and then sends requests; the node answers each in order, with
// the request's operation and sequence number. A client has at most kPipelineDepth requests in flight on a
// connection; a node does not count them, it reads the next one when it has answered the last. While it works
// on a kDestroyNamespace, kFreeBatch, kOpen, kCopy, kState or kAllocateBatch it sends interim answers, which are marked
// kFrameProgress and carry nothing. A frame that breaks a limit or the sequence ends the connection. A node
// answers nothing before the hello, and closes a connection whose frame stays incomplete for kFrameTimeout.
//
// Frame: FabricFrameHeader, then `headLength` bytes of arguments, then `dataLength` bytes of an object's
// contents. Everything is little-endian. Arguments are packed without padding, in the order given at
// FabricOperation: integers of their size; a text is its 16-bit length and its bytes, without NUL. Bytes left
// over after the arguments are an error.
//
// What a caller can find out. The token is compared before anything else is looked up: a caller without the
// right token learns that a namespace exists (-EACCES instead of -ENOENT), and not whether an object does. An
// object is looked up only within the namespace named. kExist alone takes no token and no namespace. The
// contents of another tenant's objects cannot be reached without that tenant's token, even with their ids.

#include "platform/fabric/protocol/results.h"

#include <algorithm>
#include <bit>
#include <chrono>
#include <cstddef>
#include <cstdint>

namespace vyn::fabric {

static_assert(std::endian::native == std::endian::little, "frames are written as they stand in memory");

// --- Places

/// The broker's folder below the home, and the socket in it.
inline constexpr const char* kBrokerFolder = "run";
inline constexpr const char* kBrokerSocket = "bm_broker.sock";

// --- Frames

inline constexpr std::uint32_t kFrameMagic = 0x314d4256;  // "VBM1"
inline constexpr std::uint16_t kProtocolVersion = 1;

/// Caps, checked before anything is allocated.
inline constexpr std::uint32_t kMaxHeadLength = 80U << 10U;
inline constexpr std::uint32_t kMaxDataLength = 1U << 20U;
inline constexpr std::uint32_t kMaxIdsPerFrame = 1024;
/// No object can be larger, whatever a node's limit.
inline constexpr std::uint64_t kMaxObjectSize = std::uint64_t{1} << 62U;
/// Stands for the size of an object that is not there.
inline constexpr std::uint64_t kNoObject = ~std::uint64_t{0};
/// The most requests that a client has in flight on one connection.
inline constexpr std::uint32_t kPipelineDepth = 8;

/// FabricFrameHeader::flags: an interim answer; the final one follows.
inline constexpr std::uint16_t kFrameProgress = 1;

struct FabricFrameHeader {
  std::uint32_t magic;       ///< kFrameMagic
  std::uint16_t operation;   ///< a FabricOperation
  std::uint16_t flags;       ///< 0 or kFrameProgress
  std::uint32_t sequence;    ///< counts the requests of a connection; an answer repeats it
  std::int32_t result;       ///< of an answer; 0 in a request
  std::uint32_t headLength;  ///< at most kMaxHeadLength
  std::uint32_t dataLength;  ///< at most kMaxDataLength; only kWrite's request and kRead's answer carry data
};
static_assert(sizeof(FabricFrameHeader) == 24);

/// Who opens a connection.
enum class PeerRole : std::uint16_t { kClient = 1, kNode = 2 };

/// The argument of kHello that accepts any node.
inline constexpr std::uint32_t kAnyNode = 0xffffffff;

/// A frame's operation: arguments of the request -> of a successful answer. An answer with a result other
/// than 0 carries no arguments and no data. "secured" stands for: text ns, text token.
enum class FabricOperation : std::uint16_t {
  /// u16 version, u16 PeerRole, u32 node id expected or kAnyNode -> u16 node id.
  /// kBmRemoteProtocol when the node is another one or speaks another version.
  kHello = 1,
  /// -> u16 node id, u64 capacity, u64 used bytes, u64 objects.
  kQuery = 2,
  /// u16 node, secured ->
  kCreateNamespace = 3,
  /// u16 node, secured ->
  kDestroyNamespace = 4,
  /// u16 node, secured, u64 size -> text id
  kAllocate = 5,
  /// secured, text id, u64 new size ->
  kExpand = 6,
  /// secured, text id ->
  kFree = 7,
  /// secured, u16 count (at most kMaxIdsPerFrame), that many texts: ids of one owner ->
  /// Frees all that can be freed; then the first failure, if any.
  kFreeBatch = 8,
  /// Broker only. secured, text id, u8 1 to write -> u64 size, u8 writable; with the answer a file descriptor
  /// (SCM_RIGHTS). A local object's descriptor is read-only unless writing was asked for. An object of
  /// another node is first pulled into this node's pool, once for all callers; the descriptor of a pulled
  /// copy is always read-only.
  kOpen = 9,
  /// secured, text id -> u64 size
  kStat = 10,
  /// secured, text id, u64 offset, u64 rest, u32 length -> and `length` bytes of data.
  /// `rest` is the number of bytes that the whole transfer still needs from `offset` on: a transfer of
  /// several requests that does not fit into the object is refused at its first request.
  kRead = 11,
  /// secured, text id, u64 offset, u64 rest; and the data ->
  kWrite = 12,
  /// secured, text id, u64 offset: the source; secured, text id, u64 offset: the destination; u64 length ->
  /// Both objects belong to one node. Ranges of one object may overlap.
  kCopy = 13,
  /// Link only. u16 count (at most kMaxIdsPerFrame), that many texts: ids -> `count` times u8: 1 while the
  /// node has the object, else 0. A node asks this to find pulled copies whose original is gone.
  /// Needs no token: an id cannot be guessed, and a caller that knows it learns one bit.
  kExist = 14,
  /// Over a link a node answers for an object of another node, too: about the copy that it keeps, whose file
  /// it reads. -ENOENT when it keeps none, or none that this namespace and token would be served.
  /// secured, text id, u8 1 to have the checksum -> u64 size, u64 stamp, u8 1 while a process may write, u64
  /// checksum (0 unless it was asked for): an ObjectState (remote_node.h).
  kState = 15,
  /// Link only. text ns, u16 count (at most kMaxIdsPerFrame), that many texts: ids -> `count` times u64: the
  /// bytes of the object, or kNoObject when the namespace has none of this id. The metadata leader asks this
  /// about the blocks of a record. Needs no token, for the reason given at kExist.
  kSizes = 16,
  /// Link only. secured, u32 variable, u16 count (1 to kMaxIdsPerFrame), that many u64: sizes -> `count`
  /// texts: ids. Allocates all objects or none, for a variable that the caller will publish. The connection
  /// holds the first object: the node has it open for writing until the connection ends. When it ends before
  /// the publication, the daemon frees the objects. The connection is never idle, and none takes its place.
  kAllocateBatch = 17,
  /// Link only. secured, text id -> The connection holds the object, as the one of kAllocateBatch does. A
  /// writer whose connection has ended asks this over a new one.
  kHold = 18,
};

/// The most objects that one connection holds: as many as the largest variable has kAllocateBatch.
inline constexpr std::size_t kMaxHeld = 512;

// --- Time
//
// Every wait has a limit. These are the defaults of both sides.

/// For making a connection, including its hello.
inline constexpr std::chrono::milliseconds kConnectTimeout{3000};
/// For the next bytes of an expected answer: an answer, some of its data, or an interim answer where the
/// operation has them.
inline constexpr std::chrono::milliseconds kAnswerTimeout{10000};
/// Added for each GiB that the node reserves before it answers.
inline constexpr std::chrono::milliseconds kAnswerTimePerGiB{4000};
/// The most that is added, however large the object.
inline constexpr std::chrono::milliseconds kMaxReserveTime{60000};
/// Returns: what is added for an object of `size` bytes.
inline std::chrono::milliseconds ReserveTime(std::uint64_t size) {
  const std::uint64_t gibibytes = std::min<std::uint64_t>(size >> 30U, 1024) + 1;
  return std::min(kAnswerTimePerGiB * static_cast<std::chrono::milliseconds::rep>(gibibytes),
                  kMaxReserveTime);
}
/// For the rest of a frame that has begun to arrive.
inline constexpr std::chrono::milliseconds kFrameTimeout{10000};
/// A node at work sends an interim answer this often.
inline constexpr std::chrono::milliseconds kProgressInterval{2000};
/// For all answers of one question about the sizes of many objects (kSizes).
inline constexpr std::chrono::milliseconds kSizesTimeout{8000};
/// For an answer, however many interim answers come before it.
inline constexpr std::chrono::milliseconds kLongestAnswer{3600 * 1000};

// --- Records

/// The answer of kQuery, in the layout of BM_QueryResAttri's record. All but the node id are the state at the
/// moment.
struct NodeAttributes {
  std::uint32_t nodeId;
  std::uint32_t reserved;
  std::uint64_t capacity;  ///< bytes
  std::uint64_t used;      ///< bytes, pulled copies included
  std::uint64_t objects;   ///< without pulled copies
};
static_assert(sizeof(NodeAttributes) == 32);

}  // namespace vyn::fabric
