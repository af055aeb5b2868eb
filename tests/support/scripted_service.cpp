#include "support/scripted_service.h"

#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {

namespace {

constexpr unsigned int kOpcodes = 64;

}  // namespace

ScriptedService::ScriptedService(const std::string& address, unsigned short port) {
  rpc::ServerOptions options;
  options.mStopTimeout = 1000;
  mServer = std::make_unique<rpc::Server>(options);
  for (unsigned int opcode = 0; opcode < kOpcodes; ++opcode) {
    mServer->Register(rpc::MessageId(opcode),
                      [this](const auto& context, const auto& message) { Take(context, *message); });
  }
  if (!mServer->Start(address, port)) {
    throw std::runtime_error(rpc::Server::mLastErrorMessage);
  }
}

ScriptedService::~ScriptedService() {
  std::vector<std::shared_ptr<rpc::ServerContext>> unanswered;
  {
    std::lock_guard lock(mMutex);
    unanswered.swap(mUnanswered);
  }
  unanswered.clear();
  mServer->Stop();
}

void ScriptedService::Answer(unsigned int opcode, Reply reply) {
  Answer(opcode, [reply](const Request&) { return reply; });
}

void ScriptedService::Answer(unsigned int opcode, Script script) {
  std::lock_guard lock(mMutex);
  mScripts[opcode] = std::move(script);
}

void ScriptedService::Take(const std::shared_ptr<rpc::ServerContext>& context, const rpc::Message& message) {
  const auto& buffers = message.Bl();
  std::string frame;
  if (buffers.size() == 1) {
    frame.assign(static_cast<const char*>(buffers[0].Addr()), buffers[0].Len());
  }
  std::uint16_t version = 0;
  if (frame.size() < 2 || (std::memcpy(&version, frame.data(), 2), version != 1)) {
    throw std::runtime_error("a request without its version");
  }
  Reply reply;
  {
    std::lock_guard lock(mMutex);
    const unsigned int opcode = message.Id().Value();
    mRequests.push_back({opcode, frame.substr(2), std::chrono::steady_clock::now()});
    if (const auto script = mScripts.find(opcode); script != mScripts.end()) {
      reply = script->second(mRequests.back());
    }
    if (reply.kind == Reply::kSilence) {
      mUnanswered.push_back(context);
    }
  }
  if (reply.kind == Reply::kAnswer) {
    rpc::Message answer(message.Id());
    answer.Bl().emplace_back(&reply.result, sizeof(reply.result), nullptr);
    if (!reply.body.empty()) {
      answer.Bl().emplace_back(reply.body.data(), reply.body.size(), nullptr);
    }
    context->mTimeout = 10000;
    rpc::Server::Reply(context, &answer, nullptr);
  }
}

std::vector<ScriptedService::Request> ScriptedService::Requests() const {
  std::lock_guard lock(mMutex);
  return mRequests;
}

std::size_t ScriptedService::Count(unsigned int opcode) const {
  std::size_t count = 0;
  for (const Request& request : Requests()) {
    count += request.opcode == opcode ? 1 : 0;
  }
  return count;
}

void ScriptedService::Clear() {
  std::lock_guard lock(mMutex);
  mRequests.clear();
}

bool ScriptedService::WaitFor(std::size_t count, std::chrono::seconds limit) const {
  return WaitUntil([&] { return Requests().size() >= count; }, limit);
}

TwinServices::TwinServices() {
  for (int attempt = 0; second == nullptr; ++attempt) {
    first = std::make_unique<ScriptedService>("127.0.0.1");
    try {
      second = std::make_unique<ScriptedService>("127.0.0.2", first->Port());
    } catch (const std::runtime_error&) {  // another process has that port there
      if (attempt == 20) {
        throw;
      }
    }
  }
}

std::string BytesOf(common::BaseMessage& message) {
  if (message.Serialize() != 0) {
    throw std::runtime_error("the message refuses to be serialised");
  }
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

}  // namespace vyn::test
