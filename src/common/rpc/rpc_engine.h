#pragma once

// One connection to one RPC server. Only this class knows the layout of requests and responses:
//
//   request   2 bytes RPC version, then the serialised request
//   response  4 bytes result word (even: success, odd: the server's status), then the serialised response,
//             if there is one
//
// All numbers in the byte order of the host. The message id is the low 10 bits of the operation code.
//
// An engine is not thread-safe, except for Abandon: a pool gives it to one thread for one call
// (rpc_engine_pool.h). After a failed call it can be used again and reconnects if necessary. Any thread may
// call the static functions, which are the server's side.

#include "common/message/base_message.h"
#include "common/util/ref.h"
#include "platform/rpc/client/client.h"
#include "platform/rpc/server/server.h"
#include "platform/sync/mutex.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vyn::common {

/// Statuses with which the caller of a call expects the server to refuse it: answers that the caller handles,
/// and no fault. Such a refusal is logged at debug level only.
using ExpectedRefusals = std::span<const std::uint32_t>;

inline bool Expects(ExpectedRefusals expected, std::uint32_t status) {
  return std::find(expected.begin(), expected.end(), status) != expected.end();
}

class RpcEngine : public Referable {
 public:
  RpcEngine() = default;
  ~RpcEngine() override = default;

  /// Connects. \param timeout milliseconds, also the default of every call in the process; below 1 is no
  /// limit. \param securityConf the settings of platform/rpc/client/client.h. Returns: 0; 1 when no client
  /// could be made; 2020019, 2020021 or 2020023 when the server could not be reached.
  unsigned int Initialize(std::string& ip, short port, long timeout, bool tlsEnable, bool authEnable,
                          std::map<std::string, const std::string>& securityConf);
  /// Connects again. Requires: Initialize has made a client. Returns: 0 or 2020021.
  unsigned int Reconnect(long timeout);

  /// Ends the call or the connect under way, and fails all later ones, with 2020019.
  void Abandon();
  bool Abandoned() const { return mAbandoned.load(); }

  /// One call. \param response may hold null: then only the result word is read. \param timeout milliseconds;
  /// -1 is no limit, 0 and less than -1 mean mTimeout. Returns: 0, the server's odd result word, or the
  /// status of what failed on the way.
  unsigned int SyncRpcCall(unsigned short opcode, const Ref<BaseMessage>& request,
                           const Ref<BaseMessage>& response, long timeout, ExpectedRefusals expected = {});
  /// The same with serialised bytes and without a response body.
  unsigned int SyncRpcCall(unsigned short opcode, char* data, unsigned int size, long timeout);

  /// Reads the result word. Returns: 0 when it is even, the word when it is odd, 1 when there is none.
  static unsigned int CheckResult(unsigned short opcode, std::vector<rpc::Buffer>& buffers,
                                  ExpectedRefusals expected = {});

  /// Server's side: checks the version of a request and finds the bytes after it. `data` points into
  /// `message`. Returns: 0; 2000005 for a request of another shape; 2020009 for a higher version.
  static unsigned int ParseRequest(const std::shared_ptr<rpc::Message>& message, void*& data,
                                   unsigned int& size);
  /// The same, and deserialises the bytes into `request`, which refers to `message`. Returns: 0, or 1 when it
  /// refused the request. It has answered the request then, and the handler must not answer it.
  static unsigned int ParseRequest(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   const std::shared_ptr<rpc::Message>& message,
                                   const Ref<BaseMessage>& request);

  /// Answers a request with a result word and, if `size` is not 0, `data`. `timeout` as in SyncRpcCall.
  /// Returns: 0; 1 when the reply could not be sent; 2000057 without a context.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, void* data, unsigned int size, long timeout);
  /// The same with a message, which may hold null.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, const Ref<BaseMessage>& response, long timeout);
  /// The same. \param callback may be null; runs when the last byte was sent or the reply failed.
  static unsigned int SyncRpcReply(unsigned short opcode, const std::shared_ptr<rpc::ServerContext>& context,
                                   unsigned int result, const Ref<BaseMessage>& response, long timeout,
                                   rpc::Callback* callback);

  std::string mIp;
  short mPort = 0;
  std::unique_ptr<rpc::SecuredClient> mClient;
  /// Set by the pool before Initialize.
  std::map<std::string, std::string> mClientOptions;

  /// Milliseconds; -1 is no limit. One value for the process: the last Initialize sets it.
  static std::atomic<std::int64_t> mTimeout;
  /// Nanoseconds that the calling thread's last call took to serialise, to send and receive, and to
  /// deserialise. 0 unless TimeCounter::timeCounterLevel is above 1.
  static thread_local int mTimeSer;
  static thread_local int mTimeCall;
  static thread_local int mTimeDes;

 private:
  sync::Mutex mClientMutex;  ///< held while mClient is set or replaced, and by Abandon
  std::atomic<bool> mAbandoned{false};
};

}  // namespace vyn::common
