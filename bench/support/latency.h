#pragma once

// Measures the duration of single operations: the 50th and the 99th percentile, and the ratio of the medians
// to the floor. A benchmark alternates between the operations that it compares, so that disturbances of the
// machine affect all of them alike.
//
// An object belongs to one thread.

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

namespace vyn::bench {

class Latency {
 public:
  explicit Latency(std::string name) : mName(std::move(name)) {}

  /// Calls `work` `count` times and keeps each duration.
  void Run(int count, const std::function<void()>& work) {
    using Clock = std::chrono::steady_clock;
    for (int i = 0; i < count; ++i) {
      const auto begin = Clock::now();
      work();
      mMicroseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
  }
  /// Adds the durations of `other`.
  void Add(const Latency& other) {
    mMicroseconds.insert(mMicroseconds.end(), other.mMicroseconds.begin(), other.mMicroseconds.end());
  }
  double Percentile(double part) {
    std::sort(mMicroseconds.begin(), mMicroseconds.end());
    return mMicroseconds.at(static_cast<std::size_t>(part * static_cast<double>(mMicroseconds.size() - 1)));
  }
  const std::string& Name() const { return mName; }

 private:
  std::string mName;
  std::vector<double> mMicroseconds;
};

inline void PrintLatencyHeader() {
  std::printf("\n%-40s %-34s %10s %10s %10s %10s %8s %s\n", "measured", "floor", "p50 us", "floor p50",
              "p99 us", "floor p99", "ratio", "bar");
}

/// \param bar the highest acceptable ratio of the medians; 0 for a comparison without a limit.
inline void PrintRatio(Latency& measured, Latency& floor, double bar) {
  const double ratio = measured.Percentile(0.5) / floor.Percentile(0.5);
  std::printf("%-40s %-34s %10.1f %10.1f %10.1f %10.1f %8.2f ", measured.Name().c_str(), floor.Name().c_str(),
              measured.Percentile(0.5), floor.Percentile(0.5), measured.Percentile(0.99),
              floor.Percentile(0.99), ratio);
  if (bar > 0) {
    std::printf("<=%.2f %s", bar, ratio <= bar ? "met" : "MISSED");
  }
  std::printf("\n");
}

}  // namespace vyn::bench
