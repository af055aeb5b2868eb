#pragma once

// Helpers for the benchmarks of the RPC layer: an echo server on vyn::rpc, a caller, and blocking sockets as
// the floor.
//
// Each Caller belongs to one thread.

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

inline constexpr unsigned short kEchoQuick = 1;   // HandlerKind::kQuick
inline constexpr unsigned short kEchoWorker = 2;  // HandlerKind::kMayBlock
inline constexpr std::size_t kRequestOverhead = 24 + 2;
inline constexpr std::size_t kReplyOverhead = 24 + 4;

[[noreturn]] void Die(const std::string& what);

/// Returns: the processors that the program may use.
std::vector<int> Processors();
/// Binds the calling thread, and the threads that it creates later, to `processor`. A wake-up of a thread on
/// another processor costs several times the rest of a small call. So operations that are compared must run
/// on the same processors.
void RunOn(int processor);

/// A message that needs no serialisation. Parsing a reply does not copy it.
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

/// An rpc::Server with the two echo handlers, on a free port of loopback.
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
  /// Makes one call. Ends the program if it fails.
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

/// Connects a pair of blocking TCP sockets over loopback, with TCP_NODELAY.
void ConnectedPair(int& client, int& server);
/// Send or receive all `size` bytes. Return: false if the peer has closed the connection.
bool SendAll(int socket, const void* data, std::size_t size);
bool ReceiveAll(int socket, void* data, std::size_t size);

}  // namespace vyn::bench
