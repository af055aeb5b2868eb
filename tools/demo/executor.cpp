// The demo's executor. It opens the variable and computes the SHA-256 of the contents. For the
// comparison it instead receives the file over a socket into private memory.

#include "tools/demo/support.h"
#include "vyn/broadcast.h"
#include "vyn/variable.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <iostream>
#include <nlohmann/json.hpp>

namespace {

using namespace vyn::demo;

void Report(double begin, double first, double last, std::uint64_t bytes, const std::string& sha256) {
  std::cout << nlohmann::json{{"event", "read"},
                              {"begin", begin},
                              {"first", first},
                              {"last", last},
                              {"bytes", bytes},
                              {"sha256", sha256},
                              {"private", PrivateMemory()}}
                   .dump()
            << std::endl;
}

int ReadVariable(const Arguments& arguments) {
  const char* app = arguments.application.c_str();
  Require(
      BroadcastInitialize(arguments.home.c_str(), arguments.version.c_str(), arguments.binaryType.c_str(), 1),
      "BroadcastInitialize");
  bool registered = false;
  Require(RegisterBroadcastApp(app, false, arguments.token.c_str(), &registered), "RegisterBroadcastApp");
  std::cout << nlohmann::json{{"event", "ready"}}.dump() << std::endl;
  AwaitLine();

  const double begin = Now();
  VynVariable* variable = nullptr;
  Require(VynVariableOpen(app, arguments.variable, &variable), "VynVariableOpen");
  const auto* data = static_cast<const char*>(VynVariableData(variable));
  const std::uint64_t size = VynVariableSize(variable);
  volatile char sink = data[0];
  const double first = Now();
  sink = data[size - 1];
  static_cast<void>(sink);
  const double last = Now();
  Sha256 sum;
  sum.Add(data, size);
  Report(begin, first, last, size, sum.Finish());
  AwaitLine();
  VynVariableClose(variable);
  BroadcastUninitialize();
  return 0;
}

/// The most bytes of one recv(). A recv() without this limit would return long after the first byte arrived,
/// and the measured time of the first byte would be too late.
constexpr std::size_t kChunk = 256U << 10U;

int Receive(const Arguments& arguments) {
  std::cout << nlohmann::json{{"event", "ready"}}.dump() << std::endl;
  AwaitLine();
  const std::size_t size = arguments.blockSize;  // for a receiver --block-size is the size of the file
  // Fresh memory, so that the page faults count as part of receiving, as in an engine.
  void* memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (memory == MAP_FAILED) {
    std::cerr << "no memory for a copy: " << std::strerror(errno) << "\n";
    return 1;
  }
  char* copy = static_cast<char*>(memory);
  const double begin = Now();
  const std::size_t colon = arguments.socket.find(':');
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(arguments.socket.substr(colon + 1))));
  inet_pton(AF_INET, arguments.socket.substr(0, colon).c_str(), &address.sin_addr);
  const int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
    std::cerr << "cannot connect to " << arguments.socket << ": " << std::strerror(errno) << "\n";
    return 1;
  }
  std::size_t received = 0;
  double first = 0;
  while (received < size) {
    const ssize_t count = recv(connection, copy + received, std::min(kChunk, size - received), 0);
    if (count <= 0) {
      break;
    }
    first = received == 0 ? Now() : first;
    received += static_cast<std::size_t>(count);
  }
  close(connection);
  const double last = Now();
  Sha256 sum;
  sum.Add(copy, received);
  Report(begin, first, last, received, sum.Finish());
  AwaitLine();
  munmap(memory, size);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Arguments arguments;
  int exitCode = 0;
  if (!ReadArguments("vyn-demo-executor", argc, argv, arguments, exitCode)) {
    return exitCode;
  }
  return arguments.socket.empty() ? ReadVariable(arguments) : Receive(arguments);
}
