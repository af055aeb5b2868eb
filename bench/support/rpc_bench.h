#pragma once

// What the benchmarks of the RPC layer share: an echo server of ours, a caller, and the bare blocking sockets
// that they are compared with.

#include "common/message/base_message.h"
#include "common/rpc/rpc_engine.h"
#include "vyn/status.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace vyn::bench {

inline constexpr unsigned short kEchoQuick = 1;   // answered as soon as it is read
inline constexpr unsigned short kEchoWorker = 2;  // a handler that may block
inline constexpr std::size_t kRequestOverhead = 24 + 2;
inline constexpr std::size_t kReplyOverhead = 24 + 4;

[[noreturn]] void Die(const std::string& what);

/// The processors that the program may use.
std::vector<int> Processors();
/// From here on the calling thread, and the threads that it makes, run on `processor`. Where the two ends of a
/// connection run matters more than what they do: a wake-up across processors costs several times the rest of
/// a small call. What is compared has to run at the same places.
void RunOn(int processor);

/// A payload that costs nothing to serialise, and a reply that is only looked at.
class Payload : public common::BaseMessage {
 public:
  explicit Payload(std::size_t size) : mBytes(size, 'x') {}
  std::uint32_t Serialize() override {
    mSerializedData = reinterpret_cast<std::uint8_t*>(mBytes.data());
    mSerializedDataSize = static_cast<std::uint32_t>(mBytes.size());
    return VYN_OK;
  }
  std::uint32_t Deserialize() override {
    return mInputRawDataSize == mBytes.size() ? VYN_OK : VYN_ERR_GENERIC;
  }

 private:
  std::string mBytes;
};

/// Our server with the two echo handlers, on a free port of loopback.
class EchoServer {
 public:
  explicit EchoServer(rpc::ServerOptions options = {});
  unsigned short Port() const { return mServer.Port(); }

 private:
  rpc::Server mServer;
};

/// One engine and one payload.
class Caller {
 public:
  Caller(unsigned short port, std::size_t size, bool tls = false,
         const std::map<std::string, const std::string>& security = {});
  /// One call; ends the program when it fails.
  void Call(unsigned short opcode);
  common::Ref<common::RpcEngine> Engine() const { return mEngine; }

 private:
  common::Ref<common::RpcEngine> mEngine;
  common::Ref<common::BaseMessage> mRequest;
  common::Ref<common::BaseMessage> mResponse;
};

/// A blocking TCP connection to a thread that answers every `request` bytes with `reply` bytes.
class BareEcho {
 public:
  BareEcho(std::size_t request, std::size_t reply);
  ~BareEcho();
  BareEcho(const BareEcho&) = delete;
  BareEcho& operator=(const BareEcho&) = delete;
  void Call();

 private:
  int mClient = -1;
  int mServer = -1;
  std::vector<char> mRequest;
  std::vector<char> mReply;
  std::thread mThread;
};

/// A connected pair of blocking TCP sockets over loopback, sending at once.
void ConnectedPair(int& client, int& server);
/// All `size` bytes. Returns: false when the peer is gone.
bool SendAll(int socket, const void* data, std::size_t size);
bool ReceiveAll(int socket, void* data, std::size_t size);

}  // namespace vyn::bench
