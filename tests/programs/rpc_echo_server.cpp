// A server of the RPC layer in a process of its own: rpc_echo_server PORT. Says its port, serves until its
// input ends. Message 1 answers with what came; message 2 never answers.

#include "common/rpc/rpc_engine.h"
#include "support/test.h"
#include "vyn/status.h"

int main(int count, char** arguments) {
  using vyn::common::RpcEngine;
  std::mutex mutex;
  std::vector<std::shared_ptr<vyn::rpc::ServerContext>> unanswered;  // guarded by mutex
  vyn::rpc::ServerOptions options;
  options.mStopTimeout = 100;
  vyn::rpc::Server server(options);
  server.Register(vyn::rpc::MessageId(1), [](const auto& context, const auto& message) {
    void* data = nullptr;
    unsigned int size = 0;
    const unsigned int result = RpcEngine::ParseRequest(message, data, size);
    RpcEngine::SyncRpcReply(1, context, result, data, size, -1);
  });
  server.Register(vyn::rpc::MessageId(2), [&](const auto& context, const auto&) {
    std::lock_guard lock(mutex);
    unanswered.push_back(context);
  });
  const auto port = static_cast<unsigned short>(count > 1 ? std::atoi(arguments[1]) : 0);
  if (!server.Start("127.0.0.1", port)) {
    std::cerr << vyn::rpc::Server::mLastErrorMessage << std::endl;
    return 1;
  }
  std::cout << server.Port() << std::endl;
  while (std::cin.get() != EOF) {
  }
  return 0;
}
