#include "support/client/scripted_service.h"

#include "support/test.h"
#include "support/wait_until.h"

namespace vyn::test {

ScriptedService::ScriptedService(const std::string& address, unsigned short port) {
  for (unsigned int opcode = 0; opcode < 64; ++opcode) {
    mServer.Register(rpc::MessageId(opcode),
                     [this](const auto& context, const auto& message) { Take(context, *message); });
  }
  if (!mServer.Start(address, port)) {
    throw std::runtime_error(rpc::Server::mLastErrorMessage);
  }
}

ScriptedService::~ScriptedService() {
  {
    std::lock_guard lock(mMutex);
    mUnanswered.clear();
  }
  mServer.Stop();
}

void ScriptedService::Answer(unsigned int opcode, Script script) {
  std::lock_guard lock(mMutex);
  mScripts[opcode] = std::move(script);
}

void ScriptedService::Take(const std::shared_ptr<rpc::ServerContext>& context, const rpc::Message& message) {
  const auto& buffer = message.Bl().at(0);
  const std::string frame(static_cast<const char*>(buffer.Addr()), buffer.Len());
  if (message.Bl().size() != 1 || frame.substr(0, 2) != std::string("\1\0", 2)) {
    throw std::runtime_error("a request without its version");
  }
  Reply reply;
  {
    std::lock_guard lock(mMutex);
    const unsigned int opcode = message.Id().Value();
    mRequests.push_back({opcode, frame.substr(2)});
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
  const auto requests = Requests();
  return static_cast<std::size_t>(std::ranges::count(requests, opcode, &Request::opcode));
}

void ScriptedService::Clear() {
  std::lock_guard lock(mMutex);
  mRequests.clear();
}

bool ScriptedService::WaitFor(std::size_t count, std::chrono::seconds limit) const {
  return WaitUntil([&] { return Requests().size() >= count; }, limit);
}

std::string BytesOf(common::BaseMessage& message) {
  message.Serialize();
  return {reinterpret_cast<const char*>(message.SerializedData()), message.SerializedDataSize()};
}

}  // namespace vyn::test
