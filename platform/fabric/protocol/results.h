#pragma once

// The results of the memory fabric: what a node answers, and what the functions of libbmclient.so return. A
// result is 0, a negative errno, or one of the constants below. Those that a node gives:
//
//   -EACCES                    wrong token
//   -ENOENT                    no such namespace, or no such object in it
//   kBmNamespaceInvalid        the text cannot name a namespace (1 to 255 letters, digits, "_", "-")
//   kBmNamespaceExists         the namespace exists, with this very token
//   kBmNotEnoughCapacity       neither the node's limit nor its file system has room
//   kBmLocalError              a range beyond the object, an argument that makes no sense, a failure on this
//                              machine
//   kBmUnconnected             a node that is needed cannot be reached, or did not answer in time
//   -EBADMSG                   an object arrived from its owner twice with other bytes than the owner's
//                              checksum tells
//   kBmRemoteFailed            the remote node failed in its own work
//   kBmRemoteProtocol          the remote side answered what no fabric node answers, or is another node than
//                              the one called; a link could not be secured: one side without TLS, a
//                              certificate that is not trusted

inline constexpr int kBmUnconnected = -195;            ///< the library's connection is not up
inline constexpr int kBmNotEnoughCapacity = -79999;    ///< the pool is full
inline constexpr int kBmNamespaceExists = -79995;      ///< the namespace is there already
inline constexpr int kBmNamespaceInvalid = 22;         ///< the namespace parameter is invalid
inline constexpr int kBmRemoteErrorA = -190;           ///< failed on the remote side
inline constexpr int kBmRemoteErrorB = -191;           ///< failed on the remote side
inline constexpr int kBmRemoteErrorC = -194;           ///< failed on the remote side
inline constexpr int kBmLocalError = -193;             ///< failed on this side
inline constexpr int kBmRemoteSwapInError = -79988;    ///< swap-in failed on the remote side
inline constexpr int kBmRemoteTransferError = -79989;  ///< gather or swap-in failed on the remote side

namespace vyn::fabric {

inline constexpr int kBmRemoteFailed = kBmRemoteErrorA;
inline constexpr int kBmRemoteProtocol = kBmRemoteErrorC;

}  // namespace vyn::fabric
