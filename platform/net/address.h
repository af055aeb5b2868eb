#pragma once

// An IPv4 or IPv6 address with its port. Threads: a value; one at a time while it is filled.

#include <netinet/in.h>
#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace vyn::net {

class Address {
 public:
  Address() = default;
  /// The address of any interface. \param family AF_INET or AF_INET6.
  Address(sa_family_t family, std::uint16_t port);

  /// Takes an address in text form; an IPv6 address may name its interface ("fe80::1%eth0"). Nothing is
  /// looked up. Returns: false when `ip` is no such text.
  bool Parse(const std::string& ip, std::uint16_t port);
  /// Fills this from getsockname() or getpeername(). Returns: false with errno set.
  bool FillOwn(int socket) { return Fill(::getsockname, socket); }
  bool FillPeer(int socket) { return Fill(::getpeername, socket); }

  sa_family_t Family() const { return mAddress.any.sa_family; }
  std::uint16_t Port() const { return ntohs(IsV4() ? mAddress.v4.sin_port : mAddress.v6.sin6_port); }
  /// The text form, without the port.
  std::string Ip() const;
  bool IsLoopback() const;
  /// The bytes of the IP address alone.
  const unsigned char* Bytes() const { return BytesOf(&mAddress.any); }
  std::size_t ByteCount() const { return IsV4() ? sizeof(in_addr) : sizeof(in6_addr); }
  /// The same of a socket address of the system, which is of either family.
  static const unsigned char* BytesOf(const sockaddr* address);

  // For calls of the system.
  const sockaddr* Get() const { return &mAddress.any; }
  sockaddr* Get() { return &mAddress.any; }
  socklen_t Size() const { return IsV4() ? sizeof(sockaddr_in) : sizeof(sockaddr_in6); }
  static constexpr socklen_t kRoom = sizeof(sockaddr_in6);

 private:
  using Query = int (*)(int, sockaddr*, socklen_t*);

  bool IsV4() const { return Family() == AF_INET; }
  bool Fill(Query query, int socket) {
    socklen_t size = kRoom;
    return query(socket, &mAddress.any, &size) == 0;
  }

  union {
    sockaddr_in6 v6;
    sockaddr_in v4;
    sockaddr any;
  } mAddress{};
};

}  // namespace vyn::net
