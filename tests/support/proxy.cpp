#include "support/proxy.h"

#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {

ByteProxy::ByteProxy(std::uint16_t port, std::int64_t passed)
    : mTarget(port), mLeft(passed), mThread([this] { Run(); }) {}

ByteProxy::~ByteProxy() {
  mEnd = true;
  mThread.join();
}

bool ByteProxy::WaitUntilStill() const {
  return WaitUntil([this] { return mStill.load(); });
}

void ByteProxy::Drop() {
  ++mDrops;
  WaitUntil([this] { return mConnections == 0; });
}

void ByteProxy::Run() {
  std::vector<std::jthread> threads;
  while (!mEnd) {
    if (mListener.HasCaller(10)) {
      ++mConnections;
      threads.emplace_back([this, client = mListener.Accept()]() mutable {
        try {
          Serve(std::move(client));
        } catch (const std::runtime_error&) {  // nobody listens at the port
        }
        --mConnections;
      });
    }
  }
}

void ByteProxy::Serve(RawSocket client) {
  RawSocket server = RawSocket::Connect(mTarget);
  const int drops = mDrops;
  for (bool stands = true; stands && !mEnd && drops == mDrops;) {
    const bool still = mLeft <= 0;
    mStill = mStill || still;
    pollfd waited[2] = {{client.Descriptor(), static_cast<short>(mCut ? 0 : POLLIN), 0},
                        {server.Descriptor(), static_cast<short>(mCut || still ? 0 : POLLIN), 0}};
    ::poll(waited, 2, 10);
    stands = ((waited[0].revents & POLLIN) == 0 || Pass(client, server, mToServer)) &&
             ((waited[1].revents & POLLIN) == 0 || Pass(server, client, mToClient));
    if (mCut || ((waited[0].revents | waited[1].revents) & POLLIN) == 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));  // a hang-up ends every poll at once
    }
  }
}

bool ByteProxy::Pass(RawSocket& from, RawSocket& to, std::string& kept) {
  std::string bytes(64U << 10U, '\0');
  const ssize_t count = ::recv(from.Descriptor(), bytes.data(), bytes.size(), 0);
  if (count <= 0) {
    return false;
  }
  bytes.resize(static_cast<std::size_t>(count));
  {
    std::lock_guard lock(mMutex);
    kept += bytes;
  }
  if (&kept == &mToClient && count > 1000 && mDamages > 0) {
    --mDamages;
    bytes.back() = static_cast<char>(bytes.back() + 1);
  }
  mLeft -= &kept == &mToClient ? count : 0;
  return to.Send(bytes);
}

std::string ByteProxy::Copy(const std::string& kept) const {
  std::lock_guard lock(mMutex);
  return kept;
}

}  // namespace vyn::test
