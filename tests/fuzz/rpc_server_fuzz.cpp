// A connection of the server under whatever its client does: bytes in any pieces, a socket that takes little
// or nothing, limits that are reached, answers that come late, times that are over. What the server says must
// be sound frames that answer requests which were made, and nothing may stay counted in.
//
// The first byte is the length of the script, which is what happens and what the socket takes; the rest is
// what the client says, behind a greeting of its own if the script does not say otherwise.

#include "platform/rpc/server/server_connection.h"
#include "support/memory_stream.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <cstdlib>
#include <deque>
#include <mutex>
#include <thread>

namespace {

using namespace vyn::rpc;
namespace net = vyn::net;

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
  std::basic_string<std::uint8_t> mSteps;
  std::size_t mNext = 0;
  std::string mSaid;  // what the server wrote

  std::uint8_t Next() { return mNext < mSteps.size() ? mSteps[mNext++] : 255; }
};

/// Its bytes come from memory; what it takes is up to the script.
class ScriptedStream : public vyn::test::MemoryStream {
 public:
  ScriptedStream(std::shared_ptr<Script> script, const std::string& bytes)
      : MemoryStream(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()),
        mScript(std::move(script)) {}

  net::IoState Handshake() override {
    const std::uint8_t step = mScript->Next();
    if (step == 0) {
      mError = "refused";
    }
    return step == 0 ? net::IoState::kFailed : step < 8 ? net::IoState::kWantRead : net::IoState::kDone;
  }
  net::IoResult Write(const iovec* parts, std::size_t count) override {
    const std::uint8_t step = mScript->Next();
    if (step < 32) {
      return {step == 0 ? net::IoState::kClosed : net::IoState::kWantWrite};
    }
    std::size_t left = step == 255 ? SIZE_MAX : step * std::size_t{97};
    std::size_t done = 0;
    for (std::size_t i = 0; i < count && left > 0; ++i) {
      const std::size_t taken = std::min(parts[i].iov_len, left);
      mScript->mSaid.append(static_cast<const char*>(parts[i].iov_base), taken);
      done += taken;
      left -= taken;
    }
    return {net::IoState::kDone, done};
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

bool Reply(const std::shared_ptr<ServerContext>& context, std::uint32_t id, std::string text) {
  Message reply{MessageId(id)};
  reply.Bl().emplace_back(text.data(), text.size(), nullptr);
  return Server::Reply(context, &reply, nullptr);
}

void Handle(const std::shared_ptr<ServerContext>& context, const std::shared_ptr<Message>& request) {
  const auto& parts = request->Bl();
  switch (request->Id().Value()) {
    case kEcho:
      Reply(context, kEcho,
            parts.empty() ? "" : std::string(static_cast<char*>(parts[0].Addr()), parts[0].Len()));
      break;
    case kHold: {
      std::lock_guard lock(gMutex);
      gHeld.push_back(context);
      break;
    }
    case kBig:
      Reply(context, kBig, std::string(kBigSize, 'b'));
      break;
    default:
      throw std::runtime_error("broken");
  }
}

std::shared_ptr<ServerCore> NewCore() {
  ServerOptions options;
  options.mIoThreads = options.mWorkerThreads = 1;
  options.mMaxFrameLength = std::size_t{1} << 18;
  options.mMaxPendingCalls = 3;
  options.mMaxPendingBytes = 100000;
  auto core = std::make_shared<ServerCore>(nullptr, options);
  for (const std::uint32_t id : {kEcho, kHold, kThrow, kBig}) {
    core->Register(MessageId(id), Handle, HandlerKind::kQuick);
  }
  Require(core->Start("127.0.0.1", 0).Ok());
  return core;
}

/// Every whole frame that the server said is sound, and the last may be cut off.
void CheckSaid(const std::string& said) {
  Greeting greeting;
  if (said.size() < sizeof(greeting)) {
    return;
  }
  std::memcpy(&greeting, said.data(), sizeof(greeting));
  Require(CheckGreeting(greeting) == nullptr);
  RpcFrameHeader header;
  for (std::size_t at = sizeof(greeting); at + sizeof(header) <= said.size();
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
  auto script = std::make_shared<Script>();
  script->mSteps.assign(data + 1, length);
  // The stream takes the size of its pieces from the first byte.
  std::string bytes(1, static_cast<char>(data[length + 1]));
  if (script->Next() % 8 != 0) {
    const Greeting greeting{.mMaxLength = 1 << 20};
    bytes.append(reinterpret_cast<const char*>(&greeting), sizeof(greeting));
  }
  bytes.append(reinterpret_cast<const char*>(data) + length + 2, size - length - 2);

  // A pipe in the socket's place: nothing ever happens to it.
  int pipes[2];
  Require(pipe2(pipes, O_NONBLOCK | O_CLOEXEC) == 0);
  const net::Descriptor other(pipes[1]);
  const auto connection = std::make_shared<ServerConnection>(core, net::Descriptor(pipes[0]), "fuzzer",
                                                             std::make_unique<ScriptedStream>(script, bytes));
  connection->Start();
  for (std::size_t turn = 0; turn < 2 * length + 8; ++turn) {
    switch (turn < length ? data[1 + turn] % 16 : 15) {
      case 0:
        if (const auto context = TakeHeld(true)) {
          Reply(context, kHold, "late");
        }
        break;
      case 1:
        TakeHeld(false);  // without an answer
        break;
      case 2:
        if (const auto context = TakeHeld(false)) {
          Reply(context, kHold, std::string(kBigSize, 'l'));
        }
        break;
      case 3:
        connection->CheckTimeouts(net::Deadline::Clock::now() +
                                  std::chrono::milliseconds(data[1 + turn] * 1000));
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
