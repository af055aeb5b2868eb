#pragma once

// Messages about nodes, the leader and applications. common/message/base_message.h says how a message is used
// and on which threads.

#include "common/message/base_message.h"

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace vyn::tessel {

struct TNodeIdRequest;
struct TNodeInfo;
struct TMetaLeaderInfo;
struct THostMessage;
struct TCapacityInfo;
struct TClusterCapacityMessage;
struct TTimeStampRequest;
struct TUsingTimeRequest;
struct TApplicationRegister;
struct TShuffleApplication;
struct TApplicationList;

/// The id of the client's node, in a reply of the node server or the metadata service.
class NodeIdResponse : public common::Message<TNodeIdRequest> {
 public:
  /// All ones until a reply was read; 0 when the reply has none.
  std::uint32_t nodeId = 0xFFFFFFFF;
  bool isMfNode = false;  ///< whether the node belongs to the fabric
  VYN_MESSAGE_FIELDS(nodeId, isMfNode)
};

class NodeInformation : public common::Message<TNodeInfo> {
 public:
  std::string hostName;
  std::uint32_t nodeId = 0xFFFFFFFF;
  VYN_MESSAGE_FIELDS(hostName, nodeId)
};

/// The question for the leader of the metadata service, and its answer.
class MetaLeaderInformation : public common::Message<TMetaLeaderInfo> {
 public:
  explicit MetaLeaderInformation(std::string info = {}) : metaLeaderInfo(std::move(info)) {}

  /// In the request who asks, "sdk" or "meta"; in the reply the leader's address.
  std::string metaLeaderInfo;
  VYN_MESSAGE_FIELDS(metaLeaderInfo)
};

/// Host names, for example of the unavailable nodes.
class HostMessage : public common::Message<THostMessage> {
 public:
  std::string ns;
  std::vector<std::string> hosts;
  VYN_MESSAGE_FIELDS(ns, hosts)
};

/// The pool of one node.
class CapacityInfo : public common::Message<TCapacityInfo> {
 public:
  std::string host;
  std::uint64_t capacityA = 0;  ///< size in bytes
  std::uint64_t capacityB = 0;  ///< free bytes
  VYN_MESSAGE_FIELDS(host, capacityA, capacityB)
};

/// The pools of all nodes. Serialize refuses a null entry with VYN_ERR_NULL_POINTER.
class ClusterCapacityMessage : public common::Message<TClusterCapacityMessage> {
 public:
  std::string ns;
  std::vector<common::Ref<CapacityInfo>> caps;
  VYN_MESSAGE_FIELDS(ns, caps)
};

/// Three times of a request, as text.
class TimeStamp : public common::Message<TTimeStampRequest> {
 public:
  std::string handleTimeStamp;
  std::string kvTimeStamp;
  std::string engineTimeStamp;
  VYN_MESSAGE_FIELDS(handleTimeStamp, kvTimeStamp, engineTimeStamp)
};

class UsingTimeRequest : public common::Message<TUsingTimeRequest> {
 public:
  std::uint32_t usingTime = 0;
  VYN_MESSAGE_FIELDS(usingTime)
};

/// Registers an application with the node server, or unregisters it.
class ApplicationRegisterRequest : public common::Message<TApplicationRegister> {
 public:
  std::string ns;  ///< the application's id
  std::string token;
  bool registerFlag = false;
  VYN_MESSAGE_FIELDS(ns, token, registerFlag)
};

/// Names an application.
class ShuffleApplication : public common::Message<TShuffleApplication> {
 public:
  std::string appId;
  VYN_MESSAGE_FIELDS(appId)
};

class ShuffleApplicationIdList : public common::Message<TApplicationList> {
 public:
  std::vector<std::string> appIds;
  VYN_MESSAGE_FIELDS(appIds)
};

}  // namespace vyn::tessel
