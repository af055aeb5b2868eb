#pragma once

#include "platform/net/sockets.h"
#include "support/test.h"

// A TCP peer that says exactly the bytes that a test gives it. Every wait ends after kPatience.

namespace vyn::test {

class RawSocket {
 public:
  static constexpr int kPatience = 20000;  // milliseconds

  explicit RawSocket(int descriptor = -1) : mSocket(descriptor) {
    const timeval patience{kPatience / 1000, 0};
    setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
  }

  static RawSocket Connect(std::uint16_t port, int receiveBuffer = 0) {
    RawSocket made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (receiveBuffer > 0) {
      setsockopt(made.Descriptor(), SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    const sockaddr_in address = Loopback(port);
    if (::connect(made.Descriptor(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("connect failed");
    }
    return made;
  }

  int Descriptor() const { return mSocket.Get(); }
  /// Returns: whether all bytes were taken.
  bool Send(const std::string& bytes) {
    return ::send(Descriptor(), bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  /// Returns: the next `size` bytes, or fewer if the peer closes before them or says nothing.
  std::string Receive(std::size_t size) {
    std::string bytes(size, '\0');
    const ssize_t count = ::recv(Descriptor(), bytes.data(), size, MSG_WAITALL);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    return bytes;
  }
  /// Waits until the peer closes or resets the connection. Returns: false if it sends a byte or does nothing.
  bool EndsWithin(int milliseconds) {
    char byte;
    return Readable(milliseconds) && ::recv(Descriptor(), &byte, 1, 0) <= 0;
  }
  bool Readable(int milliseconds) const {
    pollfd entry{Descriptor(), POLLIN, 0};
    return ::poll(&entry, 1, milliseconds) == 1;
  }
  /// Closes so that the peer sees a reset.
  void Reset() {
    const linger now{1, 0};
    setsockopt(Descriptor(), SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    Close();
  }
  void Close() { mSocket.Close(); }

  static sockaddr_in Loopback(std::uint16_t port) {
    return {AF_INET, htons(port), {htonl(INADDR_LOOPBACK)}, {}};
  }

 private:
  net::Descriptor mSocket;
};

class RawListener {
 public:
  RawListener() {
    if (!net::Listen("127.0.0.1", mPort, 16, mSocket).Ok()) {
      throw std::runtime_error("no listener");
    }
  }

  std::uint16_t Port() const { return mPort; }
  RawSocket Accept(int milliseconds = RawSocket::kPatience) {
    if (!HasCaller(milliseconds)) {
      throw std::runtime_error("nobody connects");
    }
    return RawSocket(::accept4(mSocket.Get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  /// Whether somebody is waiting to be accepted.
  bool HasCaller(int milliseconds) const {
    return net::WaitFor(mSocket.Get(), POLLIN, net::Deadline(milliseconds));
  }
  void Close() { mSocket.Close(); }

 private:
  net::Descriptor mSocket;
  std::uint16_t mPort = 0;
};

/// Numbers in the order of the wire, which is little-endian as the host's is.
template <typename... Numbers>
std::string Wire(Numbers... numbers) {
  return (std::string(reinterpret_cast<const char*>(&numbers), sizeof(numbers)) + ...);
}

/// The 16 bytes with which each side of an RPC connection begins.
inline std::string WireGreeting(std::uint32_t maxLength = 1 << 20, std::int32_t status = 0) {
  return "VYNR" + Wire(std::uint16_t{1}, std::uint16_t{0}, status, maxLength);
}

/// The 24 bytes in front of a body.
inline std::string WireHeader(std::uint32_t length, std::uint64_t call, std::uint32_t id,
                              std::int32_t status = 0) {
  return "VYNF" + Wire(length, call, id, status);
}

inline std::string WireFrame(std::uint32_t id, const std::string& body, std::uint64_t call = 1,
                             std::int32_t status = 0) {
  return WireHeader(static_cast<std::uint32_t>(body.size()), call, id, status) + body;
}

}  // namespace vyn::test
