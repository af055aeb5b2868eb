#pragma once

// A benchmark says how the system's work compares with its floor: the least that the hardware and the
// required steps allow. Both are ordinary Google Benchmark functions; a ratio names the two and the bar:
//
//   void FrameCall(benchmark::State& state) {...}
//   void FrameCallFloor(benchmark::State& state) {...}
//   BENCHMARK(FrameCall);
//   BENCHMARK(FrameCallFloor);
//   VYN_RATIO_AT_MOST("FrameCall", "FrameCallFloor", 1.25);
//   VYN_TIME_AT_MOST("FrameCall", 100000);
//
// The program runs every function several times, in random order, and prints the ratio of the medians at the
// end: of the time that the measuring thread spent computing, or of the time that passed when the benchmark
// says UseRealTime(). One that waits for another thread or process must say so:
// BENCHMARK(FrameCall)->UseRealTime(). A missed bar is printed, not failed: machines differ, a ratio in one
// run is what can be compared.

#include <benchmark/benchmark.h>

namespace vyn::bench {

struct Ratio {
  const char* measured;
  const char* floor;
  /// 0: none, the ratio is only told.
  double bar;
  /// false: time of measured / time of floor, to stay at or below the bar.
  /// true: speed of measured / speed of floor, to stay at or above it.
  bool atLeast;
};

/// A bar in time, for work whose floor is too small to compare with.
struct Limit {
  const char* measured;
  double nanoseconds;
};

bool AddRatio(const Ratio& ratio);
bool AddLimit(const Limit& limit);

}  // namespace vyn::bench

#define VYN_RATIO_NAME2(LINE) gVynRatio##LINE
#define VYN_RATIO_NAME(LINE) VYN_RATIO_NAME2(LINE)
#define VYN_RATIO_AT_MOST(MEASURED, FLOOR, BAR)                    \
  [[maybe_unused]] static const bool VYN_RATIO_NAME(__COUNTER__) = \
      ::vyn::bench::AddRatio({MEASURED, FLOOR, BAR, false})
#define VYN_RATIO_AT_LEAST(MEASURED, FLOOR, BAR)                   \
  [[maybe_unused]] static const bool VYN_RATIO_NAME(__COUNTER__) = \
      ::vyn::bench::AddRatio({MEASURED, FLOOR, BAR, true})
#define VYN_RATIO(MEASURED, OTHER) VYN_RATIO_AT_MOST(MEASURED, OTHER, 0)
#define VYN_TIME_AT_MOST(MEASURED, NANOSECONDS)                    \
  [[maybe_unused]] static const bool VYN_RATIO_NAME(__COUNTER__) = \
      ::vyn::bench::AddLimit({MEASURED, NANOSECONDS})
