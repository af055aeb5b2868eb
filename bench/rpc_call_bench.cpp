// A synchronous call through the engine beside a ping-pong of the same bytes over bare blocking sockets, at
// 200 bytes and 64 KiB, answered by a quick handler and by one that may block; and 16 MiB of throughput.

#include "support/latency.h"
#include "support/rpc_bench.h"

namespace {

using namespace vyn::bench;

void Compare(const EchoServer& server, const std::string& size, std::size_t bytes, int turns, int calls,
             double bar) {
  Caller quick(server.Port(), bytes);
  Caller worker(server.Port(), bytes);
  BareEcho bare(bytes + kRequestOverhead, bytes + kReplyOverhead);
  Latency quickTimes("SyncRpcCall " + size);
  Latency workerTimes("SyncRpcCall " + size + ", may block");
  Latency bareTimes("blocking ping-pong " + size);
  for (int turn = 0; turn < turns; ++turn) {
    quickTimes.Run(calls, [&] { quick.Call(kEchoQuick); });
    bareTimes.Run(calls, [&] { bare.Call(); });
    workerTimes.Run(calls, [&] { worker.Call(kEchoWorker); });
  }
  PrintRatio(quickTimes, bareTimes, bar);
  PrintRatio(workerTimes, bareTimes, bar);
}

}  // namespace

int main() {
  EchoServer server;
  PrintLatencyHeader();
  Compare(server, "200 B", 200, 50, 400, 1.25);
  Compare(server, "64 KiB", std::size_t{64} << 10, 50, 200, 1.25);
  Compare(server, "16 MiB", std::size_t{16} << 20, 20, 2, 1 / 0.85);
  return 0;
}
