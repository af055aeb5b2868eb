#include "services/common/service_status.h"

#include <array>
#include <utility>

namespace vyn::services {

namespace {

constexpr std::array<std::pair<std::uint32_t, const char*>, 18> kTexts{{
    {VYN_ERR_OUT_OF_POOL_MEMORY, "the pool of this node is full"},
    {VYN_ERR_NULL_POINTER, "this process has no memory"},
    {kStatusNotLeading, "this node does not lead any more, or cannot tell"},
    {kStatusUnknownOperation, "no such operation"},
    {kStatusInvalidRequest, "the request makes no sense"},
    {kStatusNotRegistered, "the application is not registered at this node"},
    {kStatusWrongToken, "the token is not the application's"},
    {kStatusWrongOwner, "a block lies on another node"},
    {kStatusUnknownVariable, "no such variable or block"},
    {kStatusVariableExists, "the variable exists with other blocks"},
    {kStatusNotReady, "the blocks of the variable are not known yet"},
    {kStatusStore, "the record could not be kept in ZooKeeper"},
    {kStatusNoLeader, "no metadata leader is known"},
    {kStatusFabric, "the pool of this node refused"},
    {kStatusNotServed, "not served by this node"},
    {kStatusTooLarge, "more than one record can hold"},
    {kStatusLimit, "the application has as many variables or blocks as it may have"},
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
