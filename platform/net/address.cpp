#include "platform/net/address.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netdb.h>

namespace vyn::net {

Address::Address(sa_family_t family, std::uint16_t port) {
  mAddress.any.sa_family = family;
  (family == AF_INET ? mAddress.v4.sin_port : mAddress.v6.sin6_port) = htons(port);
}

bool Address::Parse(const std::string& ip, std::uint16_t port) {
  *this = Address(AF_INET, port);
  if (::inet_pton(AF_INET, ip.c_str(), &mAddress.v4.sin_addr) == 1) {
    return true;
  }
  *this = Address(AF_INET6, port);
  const std::size_t percent = ip.find('%');
  if (::inet_pton(AF_INET6, ip.substr(0, percent).c_str(), &mAddress.v6.sin6_addr) != 1) {
    return false;
  }
  if (percent != std::string::npos) {
    mAddress.v6.sin6_scope_id = ::if_nametoindex(ip.c_str() + percent + 1);
    return mAddress.v6.sin6_scope_id != 0;
  }
  return true;
}

std::string Address::Ip() const {
  char text[NI_MAXHOST] = "";
  ::getnameinfo(Get(), Size(), text, sizeof(text), nullptr, 0, NI_NUMERICHOST);
  return text;
}

bool Address::IsLoopback() const {
  return IsV4() ? *Bytes() == IN_LOOPBACKNET : IN6_IS_ADDR_LOOPBACK(&mAddress.v6.sin6_addr);
}

const unsigned char* Address::BytesOf(const sockaddr* address) {
  return address->sa_family == AF_INET ? reinterpret_cast<const unsigned char*>(
                                             &reinterpret_cast<const sockaddr_in*>(address)->sin_addr)
                                       : reinterpret_cast<const unsigned char*>(
                                             &reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr);
}

}  // namespace vyn::net
