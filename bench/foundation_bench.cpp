// The parts that every call uses: the check of an identifier, a log line below the level, a look-up in the
// cache of variables, and copying a Ref.

#include "common/log/logging.h"
#include "common/util/input_check.h"
#include "common/util/text.h"
#include "support/ratio.h"
#include "tessel/sdk/broadcast/broadcast_sdk_cache.h"

#include <atomic>
#include <cstring>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

namespace {

using vyn::common::Ref;
using vyn::tessel::BroadcastSdkCache;
using vyn::tessel::BroadcastVarInfo;
using vyn::utilities::log::ULog;

const char* Identifier() {
  static const char text[] = "application_1700000000000_000042";
  static_assert(sizeof(text) == 33);
  return text;
}

void IdentifierCheck(benchmark::State& state) {
  for (auto _ : state) {
    const char* text = Identifier();
    benchmark::DoNotOptimize(text);
    benchmark::DoNotOptimize(vyn::common::CheckInputWithCharPtr(text, false, false));
  }
}
BENCHMARK(IdentifierCheck);

// The floor: find the end of the text and look up each byte once.
void IdentifierCheckFloor(benchmark::State& state) {
  static unsigned char classes[256];
  std::memset(classes, 1, sizeof(classes));
  for (auto _ : state) {
    const char* text = Identifier();
    benchmark::DoNotOptimize(text);
    const std::size_t length = ::strnlen(text, 1025);
    unsigned char all = 1;
    for (std::size_t i = 0; i < length; ++i) {
      all &= classes[static_cast<unsigned char>(text[i])];
    }
    benchmark::DoNotOptimize(all);
  }
}
BENCHMARK(IdentifierCheckFloor);
VYN_RATIO_AT_MOST("IdentifierCheck", "IdentifierCheckFloor", 2.0);
VYN_TIME_AT_MOST("IdentifierCheck", 50);

// Sets the process's logger for one benchmark: one with level ERROR, or none.
class LoggerInUse {
 public:
  explicit LoggerInUse(bool some) {
    static ULog errorsOnly;
    errorsOnly.mLevel = 4;
    ULog::gLogger = some ? &errorsOnly : nullptr;
  }
  ~LoggerInUse() { ULog::gLogger = nullptr; }
};

void ClosedGate(benchmark::State& state) {
  const LoggerInUse logger(state.range(0) == 1);
  std::string text = "value";
  for (auto _ : state) {
    benchmark::DoNotOptimize(text);
    VYN_LOG_INFO("a line with a " << text);
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ClosedGate)->Arg(0)->Arg(1);

// The floor: one pointer check and one comparison.
void ClosedGateFloor(benchmark::State& state) {
  static int level = 4;
  static int* logger = &level;
  benchmark::DoNotOptimize(logger);
  for (auto _ : state) {
    if (logger != nullptr && *logger < 3) {
      state.SkipWithError("the gate is open");
    }
    benchmark::ClobberMemory();
  }
}
BENCHMARK(ClosedGateFloor);
VYN_RATIO_AT_MOST("ClosedGate/1", "ClosedGateFloor", 2.5);
VYN_TIME_AT_MOST("ClosedGate/0", 2);
VYN_TIME_AT_MOST("ClosedGate/1", 2);

constexpr unsigned int kVariables = 100;

std::string NameOf(unsigned int variable) { return vyn::common::GenBcVarName(Identifier(), variable); }

void GetVarInfo(benchmark::State& state) {
  BroadcastSdkCache cache;
  for (unsigned int i = 0; i < kVariables; ++i) {
    cache.InsertVarInfo(NameOf(i), {"id"}, {1});
  }
  const std::string name = NameOf(42);
  for (auto _ : state) {
    benchmark::DoNotOptimize(cache.GetVarInfo(name).Get());
  }
}
BENCHMARK(GetVarInfo);

/// A lookup under a shared lock in a std::unordered_map. With `takeReference` the result stays valid after
/// the lock is released, as that of GetVarInfo must: this takes one atomic operation under the lock and one
/// after the use.
void LookUp(benchmark::State& state, bool takeReference) {
  std::unordered_map<std::string, std::atomic<std::int64_t>> table;
  std::shared_mutex mutex;
  for (unsigned int i = 0; i < kVariables; ++i) {
    table[NameOf(i)] = 1;
  }
  const std::string name = NameOf(42);
  for (auto _ : state) {
    std::atomic<std::int64_t>* found = nullptr;
    {
      std::shared_lock lock(mutex);
      found = &table.find(name)->second;
      if (takeReference) {
        found->fetch_add(1, std::memory_order_acq_rel);
      }
    }
    benchmark::DoNotOptimize(found);
    if (takeReference) {
      benchmark::DoNotOptimize(found->fetch_sub(1, std::memory_order_acq_rel));
    }
  }
}

void GetVarInfoFloor(benchmark::State& state) { LookUp(state, true); }
BENCHMARK(GetVarInfoFloor);
VYN_RATIO_AT_MOST("GetVarInfo", "GetVarInfoFloor", 1.3);

// For comparison, to show the cost of the two atomic operations: a lookup whose result is not safe to use.
void LookupWithoutReference(benchmark::State& state) { LookUp(state, false); }
BENCHMARK(LookupWithoutReference);
VYN_RATIO("GetVarInfo", "LookupWithoutReference");

void RefCopyAndDrop(benchmark::State& state) {
  const Ref<BroadcastVarInfo> ref(new BroadcastVarInfo);
  for (auto _ : state) {
    Ref<BroadcastVarInfo> copy = ref;
    benchmark::DoNotOptimize(copy);
  }
}
BENCHMARK(RefCopyAndDrop);

// The floor: one atomic operation for the copy and one for its destruction.
void RefCopyAndDropFloor(benchmark::State& state) {
  std::atomic<std::int64_t> count{1};
  for (auto _ : state) {
    count.fetch_add(1, std::memory_order_acq_rel);
    benchmark::DoNotOptimize(count.fetch_sub(1, std::memory_order_acq_rel));
  }
}
BENCHMARK(RefCopyAndDropFloor);
VYN_RATIO_AT_MOST("RefCopyAndDrop", "RefCopyAndDropFloor", 1.5);

}  // namespace
