#include "common/rpc/network.h"

#include "common/log/logging.h"
#include "common/util/text.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <string_view>

namespace vyn::common {

namespace {

using Interfaces = std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)>;

/// Returns: the list of getifaddrs; null, logged, on failure.
Interfaces ListInterfaces() {
  ifaddrs* list = nullptr;
  if (::getifaddrs(&list) != 0) {
    const int error = errno;
    VYN_LOG_ERROR("Failed to get the list of ip address in the node, errno is " << error);
    list = nullptr;
  }
  return {list, &::freeifaddrs};
}

/// Returns: the mask length of 1 to 32 that `text` names, or 0.
unsigned int MaskLength(const std::string& text) {
  constexpr std::size_t kMostDigits = 2;
  constexpr unsigned int kMostBits = 32;
  const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  if (text.empty() || text[0] == '0' || !digits || text.size() > kMostDigits) {
    return 0;
  }
  const unsigned long bits = std::stoul(text);
  return bits <= kMostBits ? static_cast<unsigned int>(bits) : 0;
}

unsigned int Ipv4Of(const sockaddr* address) {
  return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
}

}  // namespace

unsigned int GetSubnets(const std::string& text, std::set<unsigned int>& subnets) {
  const auto entries = SplitString(text, ',');
  if (entries.empty()) {
    return VYN_ERR_GENERIC;
  }
  for (const std::string& entry : entries) {
    const auto pieces = SplitString(entry, '/');
    in_addr address{};
    if (pieces.size() != 2 || ::inet_pton(AF_INET, pieces[0].c_str(), &address) != 1) {
      continue;
    }
    const unsigned int bits = MaskLength(pieces[1]);
    if (bits != 0) {
      subnets.insert(address.s_addr & htonl(~0U << (32U - bits)));
    }
  }
  return VYN_OK;
}

unsigned int GetNodeIPSet(std::set<std::string>& addresses) {
  const auto list = ListInterfaces();
  if (list == nullptr) {
    return VYN_ERR_GENERIC;
  }
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr) {
      continue;
    }
    const int family = entry->ifa_addr->sa_family;
    const void* raw = nullptr;
    if (family == AF_INET) {
      raw = &reinterpret_cast<const sockaddr_in*>(entry->ifa_addr)->sin_addr;
    } else if (family == AF_INET6) {
      raw = &reinterpret_cast<const sockaddr_in6*>(entry->ifa_addr)->sin6_addr;
    }
    char text[INET6_ADDRSTRLEN];
    if (raw != nullptr && ::inet_ntop(family, raw, text, sizeof(text)) != nullptr) {
      addresses.insert(text);
    }
  }
  return VYN_OK;
}

void FilterDevice(std::vector<std::string>& devices, std::set<unsigned int>& subnets) {
  const auto list = ListInterfaces();
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    char host[NI_MAXHOST];
    if (::getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host, sizeof(host), nullptr, 0, NI_NUMERICHOST) !=
        0) {
      VYN_LOG_WARN("getnameinfo() failed.");
      continue;
    }
    if (entry->ifa_netmask != nullptr &&
        subnets.count(Ipv4Of(entry->ifa_addr) & Ipv4Of(entry->ifa_netmask)) != 0) {
      const std::string_view label(
          entry->ifa_name);  // an address's label, such as eth0:1, or the name itself
      devices.emplace_back(label.substr(0, label.find(':')));
    }
  }
}

unsigned int ResolveIterfaces(std::vector<std::string>& devices, const std::string& ipMasks) {
  std::set<unsigned int> subnets;
  GetSubnets(ipMasks, subnets);
  if (subnets.empty()) {
    VYN_LOG_WARN("Ip mask '" << ipMasks << "' is invalid, should be something like '192.168.2.1/24'");
    return VYN_ERR_GENERIC;
  }
  FilterDevice(devices, subnets);
  return VYN_OK;
}

unsigned int SplitIpAndPort(const std::string& text, std::string& ip, short& port) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) {
    return VYN_ERR_PARSE_PORT;
  }
  ip = text.substr(0, colon);
  const std::string portText = text.substr(colon + 1);
  long value = 0;
  if (!VynStol(portText, value)) {
    VYN_LOG_ERROR("Failed to parse port from <" << portText << ">");
    return VYN_ERR_PARSE_PORT;
  }
  if (value < 1 || value > std::numeric_limits<short>::max()) {
    VYN_LOG_ERROR("Invalid port <" << value << ">, it must be int16_t");
    return VYN_ERR_INVALID_PARAM;
  }
  port = static_cast<short>(value);
  return VYN_OK;
}

}  // namespace vyn::common
