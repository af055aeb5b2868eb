#pragma once

// Messages about bags. A bag groups the blobs of one partition range of a shuffle. Values that only the
// service interprets have the names of the schema. common/message/base_message.h says how a message is used
// and on which threads.

#include "common/message/base_message.h"

#include <cstdint>
#include <set>
#include <string>
#include <vector>

namespace vyn::tessel {

struct TShuffleBag;
struct TShuffleBagBatch;
struct TShuffleBagInfoGetRequest;
struct TBagIdEntry;
struct TBagIdList;

/// One bag.
class ShuffleBag : public common::Message<TShuffleBag> {
 public:
  std::string ns;  ///< the application's id
  std::string name;
  std::uint32_t bagValue0 = 0;  ///< 64 bits on the wire, of which Deserialize keeps the low 32
  std::uint32_t bagValue1 = 0;
  std::uint32_t bagValue2 = 0;
  std::uint32_t bagValue3 = 0;
  VYN_MESSAGE_FIELDS(bagValue0, bagValue1, bagValue2, bagValue3, name, ns)
};

/// Many bags to create or to remove.
class ShuffleBagBatch : public common::Message<TShuffleBagBatch> {
 public:
  std::string ns;        ///< the application's id
  std::string partName;  ///< the part of the name common to the batch
  std::uint32_t partitionNum = 0;
  std::uint32_t batchValue1 = 0;
  std::uint32_t batchValue2 = 0;
  VYN_MESSAGE_FIELDS(partitionNum, batchValue1, batchValue2, partName, ns)
};

/// Asks for the ids of a bag.
class ShuffleBagInfoGetRequest : public common::Message<TShuffleBagInfoGetRequest> {
 public:
  std::string ns;    ///< the application's id
  std::string name;  ///< of the bag
  std::uint32_t number = 0;
  std::uint8_t kind = 0;
  VYN_MESSAGE_FIELDS(ns, name, number, kind)
};

/// One bag id entry.
class ShuffleBagIdEntry : public common::Message<TBagIdEntry> {
 public:
  std::string ns;         ///< the application's id
  std::string bagPrefix;  ///< prefix of the bag's name
  std::uint32_t entryValue0 = 0;
  std::uint32_t entryValue1 = 0;
  std::uint16_t entryNode = 0;
  // For the service's own use; not sent.
  std::uint32_t mOpaqueNumber = 999999;
  std::set<std::uint32_t> mOpaqueSet;
  VYN_MESSAGE_FIELDS(ns, bagPrefix, entryValue0, entryValue1, entryNode)
};

/// The reply to ShuffleBagInfoGetRequest.
class ShuffleBagIdList : public common::Message<TBagIdList> {
 public:
  std::uint32_t listValue0 = 0;  ///< becomes entryValue0 of an entry
  std::uint32_t listValue1 = 0;  ///< becomes entryValue1
  std::string bagNamePrefix;     ///< becomes bagPrefix
  std::vector<std::string> bagNamePrefixToBeCleanedList;
  VYN_MESSAGE_FIELDS(listValue0, listValue1, bagNamePrefix, bagNamePrefixToBeCleanedList)
};

}  // namespace vyn::tessel
