#pragma once

// One connection to one RPC server, and the only place that knows how a serialised message lies in a frame:
//
//   request   2 bytes RPC version, then the serialised request
//   response  4 bytes result word (even: success, odd: the server's status), then the serialised response, if
//   any
//
// All numbers in the byte order of the host. The message id is the low 10 bits of the operation code.
//
// A pool makes engines and hands each to one thread for one call (rpc_engine_pool.h); an engine has no lock
// of its own. A failed call changes nothing: the engine can be used again and connects again when it has to.
// The server half of the frame is static and may be used from any thread.

#include "common/message/base_message.h"
#include "common/util/ref.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace vyn::common {

class RpcEngine : public Referable {
 public:
  RpcEngine() = default;
  ~RpcEngine() override = default;

  /// Connects. \param timeout milliseconds, also the default of every call in the process; below 1 is no
  /// limit. \param securityConf the settings of platform/rpc/client.h. Returns: 0; 1 when no client could be
  /// set up; 2020019, 2020021 or 2020023 when the server could not be reached.
  unsigned int Initialize(std::string& ip, short port, long timeout, bool tlsEnable, bool authEnable,
                          std::map<std::string, const std::string>& securityConf);
  /// Connects again. Requires: Initialize has made a client. Returns: 0 or 2020021.
  unsigned int Reconnect(long timeout);

  /// One call. \param response may hold null: then only the result word counts. \param timeout milliseconds;
  /// -1 is no limit, 0 and less than -1 stand for mTimeout. Returns: 0, the server's odd result word, or the
  /// status of what failed on the way.
  unsigned int SyncRpcCall(unsigned short opcode, const Ref<BaseMessage>& request,
                           const Ref<BaseMessage>& response, long timeout);
  /// The same with ready-made bytes and no response payload.
  unsigned int SyncRpcCall(unsigned short opcode, char* data, unsigned int size, long timeout);

  /// Reads the result word. Returns: 0 when it is even, the word when it is odd, 1 when there is none.
  static unsigned int CheckResult(unsigned short opcode, std::vector<rpc::Buffer>& buffers);

  /// The server half: takes the version off a request. `data` and `size` point into `message`. Returns: 0;
  /// 2000005 for a request of another shape; 2020009 for a higher version.
  static unsigned int ParseRequest(const std::shared_ptr<rpc::Message>& message, void*& data,
                                   unsigned int& size);
  /// The same, and deserialises into `request`, which reads from `message`. Returns: 0, or 1 when the request
  /// was refused; the refusal is then on its way to the caller and the handler has nothing left to do.
  static unsigned int ParseRequest(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   const std::shared_ptr<rpc::Message>& message,
                                   const Ref<BaseMessage>& request);

  /// Answers a request with a result word and, when there are any, bytes. `timeout` as in SyncRpcCall.
  /// Returns: 0; 1 when the reply could not be sent; 2000057 without a context.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, void* data, unsigned int size, long timeout);
  /// The same with a message, which may hold null.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, const Ref<BaseMessage>& response, long timeout);
  /// The same. \param callback may be null; is told when the last byte has left or the reply failed.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, const Ref<BaseMessage>& response, long timeout,
                                   rpc::Callback* callback);

  std::string mIp;
  short mPort = 0;
  std::unique_ptr<rpc::SecuredClient> mClient;
  /// Filled by the pool before Initialize.
  std::map<std::string, std::string> mClientOptions;

  /// Milliseconds; one value for the process, written by every Initialize. -1 is no limit.
  static std::atomic<std::int64_t> mTimeout;
  /// Nanoseconds that the calling thread's last call spent serialising, on the wire and deserialising;
  /// measured while TimeCounter::timeCounterLevel is above 1, otherwise 0.
  static thread_local int mTimeSer;
  static thread_local int mTimeCall;
  static thread_local int mTimeDes;
};

}  // namespace vyn::common
