#pragma once

// For work whose spread matters as much as its middle: several ways to do it, measured in turns of one run,
// so that the machine's moods fall on all of them alike; 50th and 99th percentile of each and the ratio to
// the floor.

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

  /// Runs `work` `count` times and keeps each duration.
  void Run(int count, const std::function<void()>& work) {
    using Clock = std::chrono::steady_clock;
    for (int i = 0; i < count; ++i) {
      const auto begin = Clock::now();
      work();
      mMicroseconds.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
  }
  /// Takes the times of another one over.
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

/// \param bar the highest ratio of the medians that is good enough; 0 for a comparison without one.
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
