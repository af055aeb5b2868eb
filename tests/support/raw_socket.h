#pragma once

#include "support/test.h"

// A TCP peer that says exactly the bytes that a test gives it. Every wait ends after kPatience with a
// failure.

namespace vyn::test {

class RawSocket {
 public:
  static constexpr int kPatience = 20000;  // milliseconds

  explicit RawSocket(int descriptor = -1) : mDescriptor(descriptor) {}
  RawSocket(RawSocket&& other) noexcept : mDescriptor(std::exchange(other.mDescriptor, -1)) {}
  RawSocket& operator=(RawSocket&& other) noexcept {
    std::swap(mDescriptor, other.mDescriptor);
    return *this;
  }
  ~RawSocket() { Close(); }

  static RawSocket Connect(std::uint16_t port, int receiveBuffer = 0) {
    RawSocket made(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (receiveBuffer > 0) {
      setsockopt(made.mDescriptor, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(receiveBuffer));
    }
    sockaddr_in address = Loopback(port);
    if (::connect(made.mDescriptor, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("connect failed");
    }
    return made;
  }

  int Descriptor() const { return mDescriptor; }
  /// Returns: whether all bytes were taken.
  bool Send(const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
      const ssize_t count = ::send(mDescriptor, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (count <= 0) {
        return false;
      }
      done += static_cast<std::size_t>(count);
    }
    return true;
  }
  /// Returns: the next `size` bytes, or fewer if the peer closes before them.
  std::string Receive(std::size_t size) {
    std::string bytes(size, '\0');
    std::size_t have = 0;
    while (have < size) {
      if (!Readable(kPatience)) {
        throw std::runtime_error("the peer says nothing");
      }
      const ssize_t count = ::recv(mDescriptor, bytes.data() + have, size - have, 0);
      if (count <= 0) {
        break;
      }
      have += static_cast<std::size_t>(count);
    }
    bytes.resize(have);
    return bytes;
  }
  /// Waits until the peer closes or resets the connection. Returns: false if it sends a byte or does nothing.
  bool EndsWithin(int milliseconds) {
    char byte;
    return Readable(milliseconds) && ::recv(mDescriptor, &byte, 1, 0) <= 0;
  }
  bool Readable(int milliseconds) const {
    pollfd entry{mDescriptor, POLLIN, 0};
    return ::poll(&entry, 1, milliseconds) == 1;
  }
  /// Closes so that the peer sees a reset.
  void Reset() {
    const linger now{1, 0};
    setsockopt(mDescriptor, SOL_SOCKET, SO_LINGER, &now, sizeof(now));
    Close();
  }
  void Close() {
    if (mDescriptor >= 0) {
      ::close(std::exchange(mDescriptor, -1));
    }
  }

  static sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    return address;
  }

 private:
  int mDescriptor;
};

class RawListener {
 public:
  RawListener() : mSocket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = RawSocket::Loopback(0);
    socklen_t size = sizeof(address);
    auto* any = reinterpret_cast<sockaddr*>(&address);
    if (::bind(mSocket.Descriptor(), any, size) != 0 || ::listen(mSocket.Descriptor(), 16) != 0 ||
        ::getsockname(mSocket.Descriptor(), any, &size) != 0) {
      throw std::runtime_error("no listener");
    }
    mPort = ntohs(address.sin_port);
  }

  std::uint16_t Port() const { return mPort; }
  RawSocket Accept(int milliseconds = RawSocket::kPatience) {
    if (!mSocket.Readable(milliseconds)) {
      throw std::runtime_error("nobody connects");
    }
    return RawSocket(::accept4(mSocket.Descriptor(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  /// Whether somebody is waiting to be accepted.
  bool HasCaller(int milliseconds) const { return mSocket.Readable(milliseconds); }
  void Close() { mSocket.Close(); }

 private:
  RawSocket mSocket;
  std::uint16_t mPort = 0;
};

/// Appends numbers in the order of the wire, little-endian.
template <typename... Numbers>
std::string Wire(Numbers... numbers) {
  std::string bytes;
  const auto append = [&bytes](auto number) {
    for (std::size_t i = 0; i < sizeof(number); ++i) {
      bytes += static_cast<char>(static_cast<std::uint64_t>(number) >> (8 * i));
    }
  };
  (append(numbers), ...);
  return bytes;
}

/// The 16 bytes with which each side of an RPC connection begins.
inline std::string WireGreeting(std::uint32_t maxLength = 1 << 20, std::int32_t status = 0,
                                std::uint16_t version = 1) {
  return "VYNR" + Wire(version, std::uint16_t{0}, status, maxLength);
}

/// The 24 bytes in front of a body.
inline std::string WireHeader(std::uint32_t length, std::uint64_t call, std::uint32_t id,
                              std::int32_t status = 0) {
  return "VYNF" + Wire(length, call, id, status);
}

}  // namespace vyn::test
