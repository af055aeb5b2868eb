#pragma once

// Stands between clients and a loopback port: passes bytes on, keeps a copy, and can hold them back or end
// connections.

#include "support/raw_socket.h"
#include "support/test.h"

namespace vyn::test {

class ByteProxy {
 public:
  /// \param port the real one. \param passed bytes from it that go through before all that it sends is held.
  explicit ByteProxy(std::uint16_t port, std::int64_t passed = std::numeric_limits<std::int64_t>::max());
  ~ByteProxy();
  ByteProxy(const ByteProxy&) = delete;
  ByteProxy& operator=(const ByteProxy&) = delete;

  std::uint16_t Port() const { return mListener.Port(); }
  /// Waits until what the port sends is held. Returns: false when it does not come to that.
  bool WaitUntilStill() const;
  void LetGo() { mLeft = std::numeric_limits<std::int64_t>::max(); }
  /// Passes nothing on in either direction, as a network that has lost one of the two; or everything again.
  void Cut(bool cut) { mCut = cut; }
  /// Changes a byte in each of the next `times` pieces of more than 1,000 bytes that come from the port.
  void Damage(int times) { mDamages = times; }
  /// Ends the present connections and waits until they are gone.
  void Drop();
  /// What has gone through so far.
  std::string ToServer() const { return Copy(mToServer); }
  std::string ToClient() const { return Copy(mToClient); }

 private:
  void Run();
  void Serve(RawSocket client);
  /// Returns: whether the connection stands.
  bool Pass(RawSocket& from, RawSocket& to, std::string& kept);
  std::string Copy(const std::string& kept) const;

  const std::uint16_t mTarget;
  RawListener mListener;
  std::atomic<std::int64_t> mLeft;
  std::atomic<bool> mStill{false}, mCut{false}, mEnd{false};
  std::atomic<int> mDrops{0}, mConnections{0}, mDamages{0};
  mutable std::mutex mMutex;  ///< guards the copies
  std::string mToServer, mToClient;
  std::thread mThread;
};

}  // namespace vyn::test
