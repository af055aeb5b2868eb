// The demo's driver. It broadcasts a file as one variable, on a node of the fabric or outside the fabric. For
// the comparison it instead sends the file to each receiver over a socket of its own, as engines do without a
// fabric.

#include "tools/demo/support.h"
#include "vyn/broadcast.h"
#include "vyn/variable.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>
#include <thread>

namespace {

using namespace vyn::demo;

int Broadcast(const Arguments& arguments) {
  const char* app = arguments.application.c_str();
  Require(
      BroadcastInitialize(arguments.home.c_str(), arguments.version.c_str(), arguments.binaryType.c_str(), 0),
      "BroadcastInitialize");
  bool registered = false;
  Require(RegisterBroadcastApp(app, true, arguments.token.c_str(), &registered), "RegisterBroadcastApp");
  const MappedFile file(arguments.file);
  const double begin = Now();
  VynVariable* variable = nullptr;
  const VynVariableOptions options{sizeof(VynVariableOptions), arguments.blockSize};
  Require(VynVariableCreateWith(app, arguments.variable, file.Size(), &options, &variable),
          "VynVariableCreateWith");
  std::memcpy(VynVariableData(variable), file.Data(), file.Size());
  Require(VynVariablePublish(variable), "VynVariablePublish");
  const double end = Now();
  VynVariableClose(variable);
  std::cout
      << nlohmann::json{{"event", "published"}, {"begin", begin}, {"end", end}, {"bytes", file.Size()}}.dump()
      << std::endl;
  AwaitLine();
  Require(VynVariableDelete(app, arguments.variable), "VynVariableDelete");
  if (registered) {
    Require(UnRegisterBroadcastApp(app), "UnRegisterBroadcastApp");
  }
  Require(MarkBroadcastApplicationCompleted(app), "MarkBroadcastApplicationCompleted");
  BroadcastUninitialize();
  std::cout << nlohmann::json{{"event", "ended"}}.dump() << std::endl;
  return 0;
}

void SendAll(int connection, const char* data, std::uint64_t size) {
  while (size > 0) {
    const ssize_t sent = send(connection, data, size, MSG_NOSIGNAL);
    if (sent <= 0) {
      break;
    }
    data += sent;
    size -= static_cast<std::uint64_t>(sent);
  }
  close(connection);
}

int ServeSockets(const Arguments& arguments) {
  const MappedFile file(arguments.file);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  socklen_t length = sizeof(address);
  if (inet_pton(AF_INET, arguments.listen.c_str(), &address.sin_addr) != 1 ||
      bind(listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(listener, 128) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
    std::cerr << "cannot listen: " << std::strerror(errno) << "\n";
    return 1;
  }
  std::cout
      << nlohmann::json{{"event", "listening"}, {"port", ntohs(address.sin_port)}, {"begin", Now()}}.dump()
      << std::endl;
  std::vector<std::jthread> senders;
  for (unsigned int i = 0; i < arguments.receivers; ++i) {
    const int connection = accept(listener, nullptr, nullptr);
    if (connection >= 0) {
      senders.emplace_back([&file, connection] { SendAll(connection, file.Data(), file.Size()); });
    }
  }
  close(listener);
  senders.clear();
  std::cout << nlohmann::json{{"event", "ended"}}.dump() << std::endl;
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  int exitCode = 0;
  if (!ReadArguments("vyn-demo-driver", argc, argv, arguments, exitCode)) {
    return exitCode;
  }
  try {
    return arguments.receivers != 0 ? ServeSockets(arguments) : Broadcast(arguments);
  } catch (const std::exception& failure) {
    std::cerr << failure.what() << "\n";
    return 1;
  }
}
