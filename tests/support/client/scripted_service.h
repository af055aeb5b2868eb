#pragma once

// A service on loopback that answers what a test tells it and notes what it receives, frame by frame. It
// knows the frame by itself, so that a mistake in ours does not cancel out.

#include "common/message/base_message.h"
#include "common/util/ref.h"
#include "platform/rpc/server/server.h"
#include "support/test.h"

namespace vyn::test {

class ScriptedService {
 public:
  struct Request {
    unsigned int opcode;
    std::string body;  ///< behind the version
  };
  struct Reply {
    std::uint32_t result = 0;
    std::string body;  ///< behind the result word
    enum Kind {
      kAnswer,
      kNoAnswer,  ///< tells the caller at once that there is none: 2020023
      kSilence,   ///< leaves the caller to its time-out: 2020021
    } kind = kAnswer;
  };
  using Script = std::function<Reply(const Request& request)>;

  /// Listens, on a free port when `port` is 0. Throws when that is not possible.
  explicit ScriptedService(const std::string& address = "127.0.0.1", unsigned short port = 0);
  ~ScriptedService();

  unsigned short Port() const { return mServer.Port(); }
  std::size_t Connections() const { return mServer.Connections(); }

  /// The answer to every request of `opcode` from now on. Before that it is 0 without a body.
  void Answer(unsigned int opcode, Reply reply) {
    Answer(opcode, [reply](const Request&) { return reply; });
  }
  /// As Answer, the answer being made anew for each request.
  void Answer(unsigned int opcode, Script script);

  std::vector<Request> Requests() const;
  std::size_t Count(unsigned int opcode) const;
  void Clear();
  /// Waits until `count` requests have come. Returns: whether they have.
  bool WaitFor(std::size_t count, std::chrono::seconds limit = std::chrono::seconds(60)) const;

 private:
  void Take(const std::shared_ptr<rpc::ServerContext>& context, const rpc::Message& message);

  mutable std::mutex mMutex;  ///< guards the next three
  std::map<unsigned int, Script> mScripts;
  std::vector<Request> mRequests;
  std::vector<std::shared_ptr<rpc::ServerContext>> mUnanswered;
  rpc::Server mServer;
};

/// Two services on 127.0.0.1 and 127.0.0.2 with the same port.
struct TwinServices {
  std::unique_ptr<ScriptedService> first = std::make_unique<ScriptedService>();
  std::unique_ptr<ScriptedService> second = std::make_unique<ScriptedService>("127.0.0.2", first->Port());
};

/// Returns: the bytes of a message; none when it refuses to be serialised.
std::string BytesOf(common::BaseMessage& message);

/// Returns: a message read from `bytes`; throws when they are refused.
template <typename T>
common::Ref<T> ReadAs(std::string bytes) {
  common::Ref<T> message(new T);
  message->SetInputRawData(bytes.data(), static_cast<unsigned int>(bytes.size()), true);
  if (message->Deserialize() != 0) {
    throw std::runtime_error("not a message of this class");
  }
  return message;
}

}  // namespace vyn::test
