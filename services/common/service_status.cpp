#include "services/common/service_status.h"

#include <array>
#include <utility>

namespace vyn::services {

namespace {

constexpr std::array<std::pair<std::uint32_t, const char*>, 22> kTexts{{
    {VYN_ERR_OUT_OF_POOL_MEMORY, "the pool of this node is full"},
    {VYN_ERR_NULL_POINTER, "the service is out of memory"},
    {kStatusNotLeading, "this node no longer leads, or cannot find out whether it does"},
    {kStatusUnknownOperation, "no such operation"},
    {kStatusInvalidRequest, "the request is invalid"},
    {kStatusNotRegistered, "the application is not registered at this node"},
    {kStatusWrongToken, "the token differs from the one of the application"},
    {kStatusWrongOwner, "the request names another node for a block than the id of the block does"},
    {kStatusUnknownVariable, "no such variable or block"},
    {kStatusVariableExists, "the variable exists with other blocks"},
    {kStatusNotReady, "the blocks of the variable are not known yet"},
    {kStatusStore, "ZooKeeper failed to read or write a record"},
    {kStatusNoLeader, "no metadata leader is known"},
    {kStatusFabric, "the pool of this node failed"},
    {kStatusNotServed, "not served by this node"},
    {kStatusTooLarge, "the block list or the list of names is too long"},
    {kStatusLimit, "the application has reached its limit of variables or blocks"},
    {kStatusNewerRecord, "a record was written by a newer build"},
    {kStatusBlocksDiffer, "the node does not have these blocks in these sizes"},
    {kStatusNodeUnreachable, "the leader could not ask the node for its blocks"},
    {kStatusNotForgotten, "a node has not forgotten an earlier variable of this number yet"},
    {kStatusUnanswered, "ZooKeeper did not answer"},
}};

}  // namespace

const char* StatusText(std::uint32_t status) {
  for (const auto& [code, text] : kTexts) {
    if (code == status) {
      return text;
    }
  }
  return "unknown status";
}

}  // namespace vyn::services
