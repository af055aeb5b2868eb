#include "support/ratio.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace vyn::bench {

namespace {

std::vector<Ratio>& Ratios() {
  static std::vector<Ratio> ratios;
  return ratios;
}

std::vector<Limit>& Limits() {
  static std::vector<Limit> limits;
  return limits;
}

/// Keeps the time of every repetition. Of several repetitions it prints only mean, median and deviation.
class Keeper : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> aggregates;
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate) {
        aggregates.push_back(run);
        continue;
      }
      const std::string name =
          run.run_name.function_name + (run.run_name.args.empty() ? "" : "/" + run.run_name.args);
      if (run.error_occurred) {
        mFailed.insert(name);
      } else if (run.iterations > 0) {
        const bool waits = !run.run_name.time_type.empty();  // UseRealTime or UseManualTime
        const double time = waits ? run.real_accumulated_time : run.cpu_accumulated_time;
        mTimes[name].push_back(time / static_cast<double>(run.iterations));
      }
    }
    ConsoleReporter::ReportRuns(aggregates.empty() ? runs : aggregates);
  }

  /// Returns: the median in seconds; negative if the function did not run.
  double Median(const std::string& name) {
    auto& times = mTimes[name];
    if (times.empty()) {
      return -1;
    }
    std::sort(times.begin(), times.end());
    return times[times.size() / 2];
  }

  bool HasFailed(const std::string& name) const { return mFailed.count(name) > 0; }

 private:
  std::map<std::string, std::vector<double>> mTimes;
  std::set<std::string> mFailed;
};

}  // namespace

bool AddRatio(const Ratio& ratio) {
  Ratios().push_back(ratio);
  return true;
}

bool AddLimit(const Limit& limit) {
  Limits().push_back(limit);
  return true;
}

}  // namespace vyn::bench

int main(int argc, char** argv) {
  using namespace vyn::bench;
  // The default is to repeat and interleave the functions. Arguments of the command line come later and
  // override it.
  std::vector<char*> arguments{argv[0]};
  std::string repetitions = "--benchmark_repetitions=7";
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  std::string minTime = "--benchmark_min_time=0.1";
  for (std::string* argument : {&repetitions, &interleave, &minTime}) {
    arguments.push_back(argument->data());
  }
  arguments.insert(arguments.end(), argv + 1, argv + argc);
  int count = static_cast<int>(arguments.size());
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return 1;
  }
  Keeper keeper;
  benchmark::RunSpecifiedBenchmarks(&keeper);

  std::printf("\n%-44s %-44s %12s %12s %8s %8s\n", "measured", "floor", "measured ns", "floor ns", "ratio",
              "bar");
  bool failed = false;
  for (const Ratio& ratio : Ratios()) {
    const double measured = keeper.Median(ratio.measured);
    const double floor = keeper.Median(ratio.floor);
    if (keeper.HasFailed(ratio.measured) || keeper.HasFailed(ratio.floor)) {
      std::printf("%-44s %-44s FAILED\n", ratio.measured, ratio.floor);
      failed = true;
      continue;
    }
    if (measured < 0 || floor <= 0) {
      continue;
    }
    const double value = ratio.atLeast ? floor / measured : measured / floor;
    const bool met = ratio.atLeast ? value >= ratio.bar : value <= ratio.bar;
    std::printf("%-44s %-44s %12.1f %12.1f %8.2f", ratio.measured, ratio.floor, measured * 1e9, floor * 1e9,
                value);
    if (ratio.bar > 0) {
      std::printf(" %s%.2f %s", ratio.atLeast ? ">=" : "<=", ratio.bar, met ? "met" : "MISSED");
    }
    std::printf("\n");
  }
  for (const Limit& limit : Limits()) {
    const double measured = keeper.Median(limit.measured) * 1e9;
    if (keeper.HasFailed(limit.measured)) {
      std::printf("%-44s %-44s FAILED\n", limit.measured, "-");
      failed = true;
    } else if (measured >= 0) {
      std::printf("%-44s %-44s %12.1f %12s %8s <=%.0f ns %s\n", limit.measured, "-", measured, "-", "-",
                  limit.nanoseconds, measured <= limit.nanoseconds ? "met" : "MISSED");
    }
  }
  return failed ? 1 : 0;
}
