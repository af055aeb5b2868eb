#include "tessel/sdk/variable/variable_failure.h"

#include "common/log/error_info.h"
#include "common/log/logging.h"
#include "tessel/message/service_status.h"
#include "tessel/sdk/variable/fabric_calls.h"
#include "vyn/variable.h"

#include <array>
#include <cerrno>
#include <cstdio>

namespace vyn::tessel {

namespace {

std::string ByteText(std::uint64_t bytes) {
  constexpr std::array<const char*, 5> kUnits{"B", "KiB", "MiB", "GiB", "TiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1024 && unit + 1 < kUnits.size(); ++unit) {
    value /= 1024;
  }
  std::array<char, 32> text{};
  std::snprintf(text.data(), text.size(), unit == 0 ? "%.0f %s" : "%.1f %s", value, kUnits[unit]);
  return text.data();
}

}  // namespace

std::string VariableKey::Text() const {
  return "variable " + std::to_string(id) + " of application " + application;
}

std::uint32_t FailService(const VariableKey& key, Service service, std::uint32_t status) {
  switch (status) {
    case VYN_VARIABLE_NOT_REGISTERED:
      return VYN_FAIL(status, "application " << key.application << " is not registered at this node");
    case VYN_VARIABLE_WRONG_TOKEN:
      return VYN_FAIL(status, "wrong token for application " << key.application);
    case VYN_VARIABLE_UNKNOWN:
      return VYN_FAIL(status, "no such variable: there is no " << key.Text());
    case VYN_VARIABLE_EXISTS:
      return VYN_FAIL(status, key.Text() << " exists already");
    case VYN_VARIABLE_NOT_PUBLISHED:
      return VYN_FAIL(status, key.Text() << " is not published yet: its writer has not finished");
    case VYN_VARIABLE_LIMIT:
      return VYN_FAIL(status, "application " << key.application << " has reached its limit of variables or "
                                             << "blocks");
    case service_status::kStatusBlocksDiffer:
      return VYN_FAIL(VYN_VARIABLE_LOST, key.Text() << ": its node no longer has all its blocks");
    case service_status::kStatusNodeUnreachable:
      return VYN_FAIL(VYN_VARIABLE_LOST, key.Text()
                                             << ": the leader of the metadata service cannot reach the "
                                             << "node that has its blocks");
    case service_status::kStatusNotForgotten:
      return VYN_FAIL(
          VYN_VARIABLE_NO_SERVICE,
          key.Text() << ": a node still knows the deleted variable of this number, see the log of "
                     << "the leader of the metadata service; try again");
    default:
      return VYN_FAIL(VYN_VARIABLE_NO_SERVICE,
                      key.Text() << ": "
                                 << (service == Service::kNodeServer ? "the node server of this machine"
                                                                     : "the leader of the metadata service")
                                 << " did not answer or failed, status " << status);
  }
}

std::uint32_t FailFabric(const VariableKey& key, const std::string& doing, std::uint32_t nodeId, int result) {
  switch (result) {
    case -EACCES:
      return VYN_FAIL(VYN_VARIABLE_WRONG_TOKEN, "wrong token for application " << key.application);
    case -ENOENT:
      return VYN_FAIL(VYN_VARIABLE_LOST, key.Text() << ": " << doing << " failed: node " << nodeId
                                                    << " no longer has the block");
    case -ERANGE:
      return VYN_FAIL(VYN_VARIABLE_LOST, key.Text() << ": " << doing << " failed: the block at node "
                                                    << nodeId << " has another size than the record says");
    case -EBADMSG:
      return VYN_FAIL(VYN_VARIABLE_LOST, key.Text() << ": " << doing << " failed: what node " << nodeId
                                                    << " sent had a wrong checksum twice");
    case kBmUnconnected:
      return VYN_FAIL(VYN_VARIABLE_LOST,
                      key.Text() << ": " << doing << " failed: node " << nodeId << " cannot be reached");
    default:
      return VYN_FAIL(VYN_VARIABLE_LOST,
                      key.Text() << ": " << doing << " failed at node " << nodeId << ", result " << result);
  }
}

std::uint32_t FailPoolFull(const VariableKey& key, std::uint32_t nodeId, std::uint64_t needed) {
  std::uint64_t free = 0;
  const std::string rest =
      FreeBytes(nodeId, free) == 0 ? ByteText(free) + " free on node " : "the rest is unknown of node ";
  return VYN_FAIL(VYN_VARIABLE_POOL_FULL,
                  "pool full: " << key.Text() << " needs " << ByteText(needed) << ", " << rest << nodeId);
}

}  // namespace vyn::tessel
