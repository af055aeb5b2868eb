#pragma once

// The messages about local blobs, which the local server hands out and takes back. Their tables are this
// system's own choice (schema/local_blob.fbs); the members that the client checks come first.
// common/util/base_message.h tells how a message is used and by whom.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>

namespace vyn::tessel {

struct TLocalBlobGetRequest;
struct TLocalBlob;
struct TLocalBlobCommitRequest;
struct TLocalBlobCommitResponse;

/// Asks for room in the node's memory. No member may be empty or 0.
class LocalBlobGetRequest : public common::Message<TLocalBlobGetRequest> {
 public:
  std::string ns;  ///< the application's id
  std::string bagName;
  std::uint64_t size = 0;  ///< in bytes
  std::uint32_t partitionNum = 0;
  VYN_MESSAGE_FIELDS(ns, bagName, size, partitionNum)
};

/// The room that was found.
class LocalBlob : public common::Message<TLocalBlob> {
 public:
  std::uint64_t blobId = 0;
  std::uint64_t size = 0;  ///< in bytes
  std::string bmId;        ///< the memory object
  VYN_MESSAGE_FIELDS(blobId, size, bmId)
};

/// Commits a local blob that was written. No member may be empty or 0.
class LocalBlobCommitRequest : public common::Message<TLocalBlobCommitRequest> {
 public:
  std::string ns;  ///< the application's id
  std::uint64_t blobId = 0;
  VYN_MESSAGE_FIELDS(ns, blobId)
};

class LocalBlobCommitResponse : public common::Message<TLocalBlobCommitResponse> {
 public:
  std::uint64_t blobId = 0;
  bool committed = false;
  VYN_MESSAGE_FIELDS(blobId, committed)
};

}  // namespace vyn::tessel
