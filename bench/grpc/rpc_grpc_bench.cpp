// Compares a synchronous call through RpcEngine with gRPC's synchronous unary call: the same payload, over
// loopback, without TLS. Built only with VYN_WITH_GRPC.

#include "support/latency.h"
#include "support/rpc_bench.h"

#include <echo.grpc.pb.h>
#include <grpcpp/grpcpp.h>

#include <memory>

namespace {

using namespace vyn::bench;

class EchoService : public echo::Echo::Service {
  grpc::Status Call(grpc::ServerContext* /*context*/, const echo::Payload* request,
                    echo::Payload* response) override {
    response->set_contents(request->contents());
    return grpc::Status::OK;
  }
};

void Compare(EchoServer& server, echo::Echo::Stub& stub, const std::string& size, std::size_t bytes,
             int calls) {
  Caller quick(server.Port(), bytes);
  Caller worker(server.Port(), bytes);
  echo::Payload request;
  request.set_contents(std::string(bytes, 'x'));
  const auto callGrpc = [&] {
    grpc::ClientContext context;
    context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(60));
    echo::Payload response;
    if (!stub.Call(&context, request, &response).ok() || response.contents().size() != bytes) {
      Die("a gRPC call failed");
    }
  };
  Latency quickTimes("SyncRpcCall " + size);
  Latency workerTimes("SyncRpcCall " + size + ", on a worker");
  Latency grpcTimes("gRPC unary call " + size);
  for (int turn = 0; turn < 50; ++turn) {
    quickTimes.Run(calls, [&] { quick.Call(kEchoQuick); });
    grpcTimes.Run(calls, callGrpc);
    workerTimes.Run(calls, [&] { worker.Call(kEchoWorker); });
  }
  PrintRatio(quickTimes, grpcTimes, 0.5);
  PrintRatio(workerTimes, grpcTimes, 0);
}

}  // namespace

int main() {
  EchoServer server;
  EchoService service;
  grpc::ServerBuilder builder;
  int port = 0;
  builder.AddListeningPort("127.0.0.1:0", grpc::InsecureServerCredentials(), &port);
  builder.RegisterService(&service);
  const std::unique_ptr<grpc::Server> grpcServer = builder.BuildAndStart();
  if (grpcServer == nullptr) {
    Die("no gRPC server");
  }
  const auto stub = echo::Echo::NewStub(
      grpc::CreateChannel("127.0.0.1:" + std::to_string(port), grpc::InsecureChannelCredentials()));
  PrintLatencyHeader();
  Compare(server, *stub, "200 B", 200, 200);
  Compare(server, *stub, "64 KiB", std::size_t{64} << 10, 100);
  grpcServer->Shutdown();
  return 0;
}
