// A connection of the server under whatever its client does: bytes in any pieces, a socket that takes little
// or nothing, limits that are reached, answers that come late, times that are over. What the server says must
// be sound frames that answer requests which were made, and nothing may stay counted in.
//
// The first byte is the length of the script, which is what happens and what the socket takes; the rest is
// what the client says, behind a greeting of its own if the script does not say otherwise.

#include "common/message/heart_beat_message.h"
#include "common/rpc/rpc_engine.h"
#include "platform/rpc/server/server_connection.h"
#include "support/net/memory_stream.h"
#include "support/rpc/rpc_calls.h"

#include <sys/epoll.h>

namespace {

using namespace vyn::rpc;
namespace common = vyn::common;
namespace net = vyn::net;
using vyn::test::Reply;

constexpr std::uint32_t kEcho = 1;
constexpr std::uint32_t kHold = 2;
constexpr std::uint32_t kThrow = 3;
constexpr std::uint32_t kBig = 4;
constexpr std::size_t kBigSize = 300000;

void Require(bool condition) {
  if (!condition) {
    std::abort();
  }
}

/// What a connection's stream shares with its test.
struct Script {
  std::string mSteps;
  std::size_t mNext = 0;
  std::string mSaid;  // what the server wrote

  unsigned int Next() { return mNext < mSteps.size() ? static_cast<unsigned char>(mSteps[mNext++]) : 255; }
};

/// Its bytes come from memory; what it takes is up to the script.
class ScriptedStream : public vyn::test::MemoryStream {
 public:
  ScriptedStream(std::shared_ptr<Script> script, std::string bytes)
      : MemoryStream(std::move(bytes)), mScript(std::move(script)) {}

  net::IoState Handshake() override {
    const unsigned int step = mScript->Next();
    return step == 0 ? net::IoState::kFailed : step < 8 ? net::IoState::kWantRead : net::IoState::kDone;
  }
  net::IoResult Write(const iovec* parts, std::size_t count) override {
    const unsigned int step = mScript->Next();
    if (step < 32) {
      return {step == 0 ? net::IoState::kClosed : net::IoState::kWantWrite};
    }
    std::string taken;
    for (std::size_t i = 0; i < count; ++i) {
      taken.append(static_cast<const char*>(parts[i].iov_base), parts[i].iov_len);
    }
    taken.resize(step == 255 ? taken.size() : std::min<std::size_t>(taken.size(), step * 97));
    mScript->mSaid += taken;
    return {net::IoState::kDone, taken.size()};
  }

 private:
  const std::shared_ptr<Script> mScript;
};

/// The requests that are held. The core's own thread goes on with a connection that had to wait.
std::mutex gMutex;
std::deque<std::shared_ptr<ServerContext>> gHeld;

std::shared_ptr<ServerContext> TakeHeld(bool oldest) {
  std::lock_guard lock(gMutex);
  if (gHeld.empty()) {
    return nullptr;
  }
  auto context = oldest ? gHeld.front() : gHeld.back();
  oldest ? gHeld.pop_front() : gHeld.pop_back();
  return context;
}

/// Reads a request as the engine does, in memory that ends where the request ends, so that a read beyond it is
/// seen, and answers with what came.
void ParseAndEcho(const std::shared_ptr<ServerContext>& context, const std::shared_ptr<Message>& request) {
  const std::string text = vyn::test::TextOf(*request);
  std::vector<char> exact(text.begin(), text.end());
  const auto message = std::make_shared<Message>(MessageId(kEcho));
  message->Bl().emplace_back(exact.data(), exact.size(), nullptr);
  const common::Ref<common::BaseMessage> parsed(new common::HeartBeatMessage);
  common::RpcEngine::ParseRequest(kEcho, nullptr, message, parsed);
  Reply(context, kEcho, text);
}

std::shared_ptr<ServerCore> NewCore() {
  ServerOptions options;
  options.mIoThreads = options.mWorkerThreads = 1;
  options.mMaxFrameLength = std::size_t{1} << 18;
  options.mMaxPendingCalls = 3;
  options.mMaxPendingBytes = 100000;
  auto core = std::make_shared<ServerCore>(nullptr, options);
  const std::pair<std::uint32_t, RequestHandler> kHandlers[] = {
      {kEcho, ParseAndEcho},
      {kHold,
       [](const auto& context, const auto&) {
         std::lock_guard lock(gMutex);
         gHeld.push_back(context);
       }},
      {kThrow, [](const auto&, const auto&) { throw std::runtime_error("broken"); }},
      {kBig, [](const auto& context, const auto&) { Reply(context, kBig, std::string(kBigSize, 'b')); }}};
  for (const auto& [id, handler] : kHandlers) {
    core->Register(MessageId(id), handler, HandlerKind::kQuick);
  }
  Require(core->Start("127.0.0.1", 0).Ok());
  return core;
}

/// Every whole frame that the server said is sound, and the last may be cut off.
void CheckSaid(const std::string& said) {
  RpcFrameHeader header;
  for (std::size_t at = sizeof(Greeting); at + sizeof(header) <= said.size();
       at += sizeof(header) + header.mLength) {
    std::memcpy(&header, said.data() + at, sizeof(header));
    Require(CheckHeader(header, kLongestFrame) == nullptr && (header.mId != kThrow || header.mStatus != kOk));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  // Never destroyed: its threads run until the process ends.
  static const auto& core = *new std::shared_ptr<ServerCore>(NewCore());
  if (size < 3) {
    return 0;
  }
  const std::size_t length = std::min<std::size_t>(data[0], size - 2);
  const std::string input(reinterpret_cast<const char*>(data), size);
  const auto script = std::make_shared<Script>();
  script->mSteps = input.substr(1, length);
  std::string bytes = input.substr(length + 1);
  if (script->Next() % 8 != 0) {
    bytes.insert(1, vyn::test::WireGreeting());  // the first byte is the size of the pieces
  }

  // A pipe in the socket's place: nothing ever happens to it.
  int pipes[2];
  Require(pipe2(pipes, O_NONBLOCK | O_CLOEXEC) == 0);
  const net::Descriptor other(pipes[1]);
  const auto connection = std::make_shared<ServerConnection>(core, net::Descriptor(pipes[0]), "fuzzer",
                                                             std::make_unique<ScriptedStream>(script, bytes));
  connection->Start();
  for (std::size_t turn = 0; turn < 2 * length + 8; ++turn) {
    const unsigned int step = turn < length ? data[1 + turn] : 15;
    switch (step % 16) {
      case 0:
      case 2:
        if (const auto context = TakeHeld(step % 16 == 0)) {
          Reply(context, kHold, std::string(step % 16 == 0 ? 4 : kBigSize, 'l'));
        }
        break;
      case 1:
        TakeHeld(false);  // without an answer
        break;
      case 3:
        connection->CheckTimeouts(net::Deadline::Clock::now() + std::chrono::seconds(step));
        break;
      case 4:
        connection->OnReady(EPOLLIN | EPOLLRDHUP);
        break;
      case 5:
        connection->Resume();
        break;
      default:
        connection->OnReady(EPOLLIN | EPOLLOUT);
    }
  }
  connection->Close("");
  // The core's own thread may be at a request still, and hold it a moment later.
  for (int i = 0; core->PendingCalls() != 0 || core->PendingBytes() != 0; ++i) {
    Require(i < 20000);
    if (TakeHeld(true) == nullptr) {
      std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
  }
  CheckSaid(script->mSaid);
  return 0;
}
