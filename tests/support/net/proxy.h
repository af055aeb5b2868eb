#pragma once

// Stands between clients and a loopback port: passes bytes on, keeps a copy, and can hold them back or end
// connections.

#include "support/net/raw_socket.h"
#include "support/wait_until.h"

namespace vyn::test {

class ByteProxy {
 public:
  static constexpr std::int64_t kAll = std::numeric_limits<std::int64_t>::max();

  /// \param port the real one. \param passed bytes from it that go through before all that it sends is held.
  explicit ByteProxy(std::uint16_t port, std::int64_t passed = kAll) : mTarget(port), mLeft(passed) {}
  ~ByteProxy() {
    mEnd = true;
    mThread.join();
  }

  std::uint16_t Port() const { return mListener.Port(); }
  /// Waits until what the port sends is held. Returns: false when it does not come to that.
  bool WaitUntilStill() const {
    return WaitUntil([this] { return mLeft <= 0; });
  }
  void LetGo() { mLeft = kAll; }
  /// Passes nothing on in either direction, as a network that has lost one of the two; or everything again.
  void Cut(bool cut) { mCut = cut; }
  /// Changes a byte in each of the next `times` pieces of more than 1,000 bytes that come from the port.
  void Damage(int times) { mDamages = times; }
  /// Ends the present connections and waits until they are gone.
  void Drop() {
    ++mDrops;
    WaitUntil([this] { return mConnections == 0; });
  }
  /// What has gone through so far.
  std::string ToServer() const { return Copy(mToServer); }
  std::string ToClient() const { return Copy(mToClient); }

 private:
  void Run() {
    std::vector<std::jthread> threads;
    while (!mEnd) {
      if (mListener.HasCaller(10)) {
        ++mConnections;
        threads.emplace_back([this, client = mListener.Accept()]() mutable {
          try {
            Serve(std::move(client), RawSocket::Connect(mTarget));
          } catch (const std::runtime_error&) {  // nobody listens at the port
          }
          --mConnections;
        });
      }
    }
  }
  void Serve(RawSocket client, RawSocket server) {
    const int drops = mDrops;
    for (bool stands = true; stands && !mEnd && drops == mDrops;) {
      const bool fromClient = !mCut && client.Readable(1);
      const bool fromServer = !mCut && mLeft > 0 && server.Readable(fromClient ? 0 : 1);
      stands = (!fromClient || Pass(client, server, mToServer)) &&
               (!fromServer || Pass(server, client, mToClient));
      std::this_thread::sleep_for(std::chrono::milliseconds(fromClient || fromServer ? 0 : 1));
    }
  }
  /// Returns: whether the connection stands.
  bool Pass(RawSocket& from, RawSocket& to, std::string& kept) {
    std::string bytes(64U << 10U, '\0');
    const ssize_t count = ::recv(from.Descriptor(), bytes.data(), bytes.size(), 0);
    bytes.resize(static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
    {
      std::lock_guard lock(mMutex);
      kept += bytes;
    }
    if (&kept == &mToClient && count > 1000 && mDamages > 0) {
      --mDamages;
      ++bytes.back();
    }
    mLeft -= &kept == &mToClient ? count : 0;
    return count > 0 && to.Send(bytes);
  }
  std::string Copy(const std::string& kept) const {
    std::lock_guard lock(mMutex);
    return kept;
  }

  const std::uint16_t mTarget;
  RawListener mListener;
  std::atomic<std::int64_t> mLeft;
  std::atomic<bool> mCut{false}, mEnd{false};
  std::atomic<int> mDrops{0}, mConnections{0}, mDamages{0};
  mutable std::mutex mMutex;  ///< guards the copies
  std::string mToServer, mToClient;
  std::thread mThread{[this] { Run(); }};
};

}  // namespace vyn::test
