#pragma once

// Compares an operation of the system with its floor: the fastest code that does the same necessary steps.
// Both are ordinary Google Benchmark functions. A ratio names the two functions and the bar, which is the
// accepted limit:
//
//   void FrameCall(benchmark::State& state) {...}
//   void FrameCallFloor(benchmark::State& state) {...}
//   BENCHMARK(FrameCall);
//   BENCHMARK(FrameCallFloor);
//   VYN_RATIO_AT_MOST("FrameCall", "FrameCallFloor", 1.25);
//   VYN_TIME_AT_MOST("FrameCall", 100000);
//
// The program runs every function several times in random order and prints the ratios of the medians at the
// end. It measures the processor time of the thread, or the elapsed time for a benchmark with UseRealTime().
// A function that waits for another thread or process needs BENCHMARK(FrameCall)->UseRealTime(). A missed bar
// is printed and does not fail the program, because machines differ.

#include <benchmark/benchmark.h>

namespace vyn::bench {

struct Ratio {
  const char* measured;
  const char* floor;
  /// 0: no bar, the ratio is only printed.
  double bar;
  /// false: the ratio is time of `measured` / time of `floor` and must be at most the bar.
  /// true: the ratio is speed of `measured` / speed of `floor` and must be at least the bar.
  bool atLeast;
};

/// A bar in nanoseconds, for an operation whose floor is too short for a meaningful ratio.
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
