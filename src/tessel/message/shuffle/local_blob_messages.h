#pragma once

// Messages about local blobs, which a node server allocates and commits. Their tables are not promised to
// other components (schema/local_blob.fbs). common/message/base_message.h says how a message is used and on
// which threads.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>

namespace vyn::tessel {

struct TLocalBlobGetRequest;
struct TLocalBlob;
struct TLocalBlobCommitRequest;
struct TLocalBlobCommitResponse;

/// Asks the node server to allocate a local blob. No member may be empty or 0.
class LocalBlobGetRequest : public common::Message<TLocalBlobGetRequest> {
 public:
  std::string ns;  ///< the application's id
  std::string bagName;
  std::uint64_t size = 0;  ///< in bytes
  std::uint32_t partitionNum = 0;
  VYN_MESSAGE_FIELDS(ns, bagName, size, partitionNum)
};

/// The allocated local blob.
class LocalBlob : public common::Message<TLocalBlob> {
 public:
  std::uint64_t blobId = 0;
  std::uint64_t size = 0;  ///< in bytes
  std::string bmId;        ///< the object that holds it
  VYN_MESSAGE_FIELDS(blobId, size, bmId)
};

/// Commits a local blob after it was written. No member may be empty or 0.
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
