// 32 threads call through one connection pool at the same time. The floor is 32 threads with a blocking
// socket each. Measures the calls a second of all threads together, and the duration of a call.

#include "common/rpc/rpc_engine_base.h"
#include "support/latency.h"
#include "support/rpc_bench.h"

#include <chrono>
#include <memory>

namespace {

using namespace vyn::bench;
using vyn::common::RpcEngine;
using vyn::common::RPCEngineBase;
using vyn::common::RPCEnginePool;

constexpr int kThreads = 32;
constexpr int kCalls = 200;
constexpr int kTurns = 15;
constexpr std::size_t kBytes = 200;

class Pool : public RPCEnginePool {
 public:
  explicit Pool(std::uint16_t port) : RPCEnginePool("127.0.0.1", port, 60000, true, 1, 5, {}, false, false) {}
  unsigned int NewRPCEngine(vyn::common::Ref<RpcEngine>& engine) override {
    return ConnectEngine(engine, {}, mTimeout);
  }
  unsigned int SetTimeout() override { return VYN_OK; }
};

/// Lets all threads make their calls at the same time. Returns: the calls a second of all threads together.
double Run(Latency& times, const std::function<void(int thread)>& call) {
  std::vector<Latency> own(kThreads, Latency(""));
  std::vector<std::thread> threads;
  const auto begin = std::chrono::steady_clock::now();
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back(
        [&, thread] { own[static_cast<std::size_t>(thread)].Run(kCalls, [&] { call(thread); }); });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - begin;
  for (const Latency& one : own) {
    times.Add(one);
  }
  return kThreads * kCalls / seconds.count();
}

}  // namespace

int main() {
  EchoServer server;
  RPCEngineBase client;
  client.SetEnginePool(vyn::common::Ref<RPCEnginePool>(new Pool(server.Port())), nullptr);
  std::vector<std::unique_ptr<BareEcho>> bare;
  for (int thread = 0; thread < kThreads; ++thread) {
    bare.push_back(std::make_unique<BareEcho>(kBytes + kRequestOverhead, kBytes + kReplyOverhead));
  }
  Latency pooled("SendCall 200 B, 32 threads, one pool");
  Latency floor("32 blocking ping-pongs 200 B");
  std::vector<double> pooledRates;
  std::vector<double> floorRates;
  const auto callPool = [&](int) {
    thread_local const vyn::common::Ref<vyn::common::BaseMessage> request(new Payload(kBytes));
    thread_local const vyn::common::Ref<vyn::common::BaseMessage> response(new Payload(kBytes));
    if (vyn::Failed(client.SendCall(kEchoQuick, request, response, 0))) {
      Die("a call failed: " + vyn::rpc::SecuredClient::mLastErrorMessage);
    }
  };
  Latency warm("");
  Run(warm, callPool);  // lets the pool open its connections before the measurement
  for (int turn = 0; turn < kTurns; ++turn) {
    pooledRates.push_back(Run(pooled, callPool));
    floorRates.push_back(Run(floor, [&](int thread) { bare[static_cast<std::size_t>(thread)]->Call(); }));
  }
  PrintLatencyHeader();
  PrintRatio(pooled, floor, 0);
  std::sort(pooledRates.begin(), pooledRates.end());
  std::sort(floorRates.begin(), floorRates.end());
  const double pooledRate = pooledRates[kTurns / 2];
  const double floorRate = floorRates[kTurns / 2];
  std::printf("calls a second of all threads: %.0f, bare %.0f, ratio %.2f >=0.80 %s\n", pooledRate, floorRate,
              pooledRate / floorRate, pooledRate >= 0.8 * floorRate ? "met" : "MISSED");
  return 0;
}
