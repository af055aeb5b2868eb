#include "support/rpc_bench.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>

namespace vyn::bench {

using common::BaseMessage;
using common::Ref;
using common::RpcEngine;

void Die(const std::string& what) {
  std::fprintf(stderr, "%s\n", what.c_str());
  std::exit(1);
}

std::vector<int> Processors() {
  cpu_set_t set;
  std::vector<int> all;
  if (sched_getaffinity(0, sizeof(set), &set) == 0) {
    for (int i = 0; i < CPU_SETSIZE; ++i) {
      if (CPU_ISSET(i, &set)) {
        all.push_back(i);
      }
    }
  }
  return all;
}

void RunOn(int processor) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(processor, &set);
  if (sched_setaffinity(0, sizeof(set), &set) != 0) {
    Die("cannot choose a processor");
  }
}

EchoServer::EchoServer(rpc::ServerOptions options) : mServer(std::move(options)) {
  const auto echo = [](const auto& context, const auto& message) {
    void* data = nullptr;
    unsigned int size = 0;
    if (!Failed(RpcEngine::ParseRequest(message, data, size))) {
      RpcEngine::SyncRpcReply(static_cast<unsigned short>(message->Id().Value()), context, VYN_OK, data, size,
                              -1);
    }
  };
  mServer.Register(rpc::MessageId(kEchoQuick), echo, rpc::HandlerKind::kQuick);
  mServer.Register(rpc::MessageId(kEchoWorker), echo);
  if (!mServer.Start("127.0.0.1", 0)) {
    Die(rpc::Server::mLastErrorMessage);
  }
}

Caller::Caller(unsigned short port, std::size_t size, bool tls,
               const std::map<std::string, const std::string>& security)
    : mEngine(new RpcEngine), mRequest(new Payload(size)), mResponse(new Payload(size)) {
  std::string ip = "127.0.0.1";
  auto copy = security;
  if (Failed(mEngine->Initialize(ip, static_cast<short>(port), 60000, tls, false, copy))) {
    Die(rpc::SecuredClient::mLastErrorMessage);
  }
}

void Caller::Call(unsigned short opcode) {
  if (Failed(mEngine->SyncRpcCall(opcode, mRequest, mResponse, 0))) {
    Die("a call failed: " + rpc::SecuredClient::mLastErrorMessage);
  }
}

void ConnectedPair(int& client, int& server) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  client = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (bind(listener, reinterpret_cast<sockaddr*>(&address), size) != 0 || listen(listener, 1) != 0 ||
      getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      connect(client, reinterpret_cast<sockaddr*>(&address), size) != 0) {
    Die("no pair of sockets");
  }
  server = accept(listener, nullptr, nullptr);
  close(listener);
  const int on = 1;
  setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
}

bool SendAll(int socket, const void* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = send(socket, static_cast<const char*>(data) + done, size - done, MSG_NOSIGNAL);
    if (count <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(count);
  }
  return true;
}

bool ReceiveAll(int socket, void* data, std::size_t size) {
  for (std::size_t done = 0; done < size;) {
    const ssize_t count = recv(socket, static_cast<char*>(data) + done, size - done, 0);
    if (count <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(count);
  }
  return true;
}

BareEcho::BareEcho(std::size_t request, std::size_t reply) : mRequest(request, 'x'), mReply(reply, 'y') {
  ConnectedPair(mClient, mServer);
  mThread = std::thread([this] {
    std::vector<char> in(mRequest.size());
    const std::vector<char> out(mReply.size(), 'y');
    while (ReceiveAll(mServer, in.data(), in.size()) && SendAll(mServer, out.data(), out.size())) {
    }
  });
}

BareEcho::~BareEcho() {
  shutdown(mClient, SHUT_RDWR);
  mThread.join();
  close(mClient);
  close(mServer);
}

void BareEcho::Call() {
  if (!SendAll(mClient, mRequest.data(), mRequest.size()) ||
      !ReceiveAll(mClient, mReply.data(), mReply.size())) {
    Die("the bare connection broke");
  }
}

}  // namespace vyn::bench
