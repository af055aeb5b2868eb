// A synchronous call through RpcEngine with 200 bytes and 64 KiB, to a quick handler and to one that may
// block, and the throughput of 16 MiB. The floor exchanges the same bytes over blocking sockets. Client and
// server run on one processor, then on two.

#include "support/latency.h"
#include "support/rpc_bench.h"

namespace {

using namespace vyn::bench;

/// The processors of client and server.
struct Places {
  const char* mName;
  int mCaller;
  int mServer;
};

void Compare(const EchoServer& server, const Places& places, const std::string& size, std::size_t bytes,
             int turns, int calls, double bar) {
  Caller quick(server.Port(), bytes);
  Caller blocking(server.Port(), bytes);
  RunOn(places.mServer);
  BareEcho bare(bytes + kRequestOverhead, bytes + kReplyOverhead);
  RunOn(places.mCaller);
  Latency quickTimes("SyncRpcCall " + size);
  Latency blockingTimes("SyncRpcCall " + size + ", may block");
  Latency bareTimes("blocking ping-pong " + size);
  for (int turn = 0; turn < turns; ++turn) {
    quickTimes.Run(calls, [&] { quick.Call(kEchoQuick); });
    bareTimes.Run(calls, [&] { bare.Call(); });
    blockingTimes.Run(calls, [&] { blocking.Call(kEchoWorker); });
  }
  PrintRatio(quickTimes, bareTimes, bar);
  PrintRatio(blockingTimes, bareTimes, bar);
}

}  // namespace

int main() {
  const std::vector<int> all = Processors();
  std::vector<Places> places{{"one processor", all.front(), all.front()}};
  if (all.size() > 1) {
    places.push_back({"two processors", all.front(), all.back()});
  }
  for (const Places& one : places) {
    RunOn(one.mServer);
    EchoServer server;
    RunOn(one.mCaller);
    std::printf("\n%s:", one.mName);
    PrintLatencyHeader();
    Compare(server, one, "200 B", 200, 50, 400, 1.25);
    Compare(server, one, "64 KiB", std::size_t{64} << 10, 50, 200, 1.25);
    Compare(server, one, "16 MiB", std::size_t{16} << 20, 20, 2, 1 / 0.85);
  }
  return 0;
}
