#pragma once

#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

// A benchmark beside its peer or limit: the ratio of their medians, and what it should not exceed.
struct Ratio {
  const char* title;
  const char* subject;
  const char* peer;
  double aim;
};

class MedianReporter : public benchmark::ConsoleReporter {
 public:
  MedianReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.aggregate_name == "median") {
        const benchmark::BenchmarkName& name = run.run_name;
        medians_[name.function_name + (name.args.empty() ? "" : "/") + name.args] =
            name.time_type.empty() ? run.GetAdjustedCPUTime() : run.GetAdjustedRealTime();
      }
    }
  }

  // False if a run is missing.
  bool printRatios(const std::vector<Ratio>& ratios) const {
    bool complete = true;
    for (const Ratio& ratio : ratios) {
      const auto subject = medians_.find(ratio.subject);
      const auto peer = medians_.find(ratio.peer);
      if (subject == medians_.end() || peer == medians_.end()) {
        std::printf("%-46s not run\n", ratio.title);
        complete = false;
        continue;
      }
      std::printf("%-46s %6.3f  (aim: %.2f)\n", ratio.title, subject->second / peer->second,
                  ratio.aim);
    }
    return complete;
  }

 private:
  std::map<std::string, double> medians_;
};

// The body of a benchmark's main(): runs subjects and peers in turn, in one process, and prints the
// ratios last. Returns the exit code.
inline int runAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios) {
  std::vector<char*> arguments(argv, argv + argc);
  std::string defaults[] = {"--benchmark_enable_random_interleaving=true",
                            "--benchmark_repetitions=21", "--benchmark_min_time=0.05",
                            "--benchmark_report_aggregates_only=true"};
  for (std::string& argument : defaults) {
    arguments.insert(arguments.begin() + 1, argument.data());
  }
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return EXIT_FAILURE;
  }
  MedianReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.printRatios(ratios) ? EXIT_SUCCESS : EXIT_FAILURE;
}
