#include "Ratios.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <string>

#include <benchmark/benchmark.h>
#include <nlohmann/json.hpp>

namespace {

// Shows the medians and keeps every repetition's time.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  RatioReporter() : ConsoleReporter(OO_Tabular) {}

  void ReportRuns(const std::vector<Run>& runs) override {
    std::vector<Run> medians;
    for (const Run& run : runs) {
      const benchmark::BenchmarkName& name = run.run_name;
      const std::string key = name.function_name + (name.args.empty() ? "" : "/") + name.args;
      if (run.run_type == Run::RT_Iteration) {
        times_[key].push_back(name.time_type.empty() ? run.GetAdjustedCPUTime()
                                                     : run.GetAdjustedRealTime());
      } else if (run.aggregate_name == "median") {
        medians.push_back(run);
        for (const auto& [counter, value] : run.counters) {
          figures_.push_back({{"benchmark", key}, {"counter", counter}, {"value", value.value}});
        }
      }
    }
    ConsoleReporter::ReportRuns(medians);
  }

  // Prints the ratios. Appends them, and the counters' medians, to `file` unless that is null, as
  // one JSON object a line. False if a run is missing.
  bool report(const std::vector<Ratio>& ratios, const char* file) {
    std::ofstream lines;
    if (file != nullptr) {
      lines.open(file, std::ios::app);
    }
    bool complete = true;
    for (const Ratio& ratio : ratios) {
      std::vector<double> subject = times_[ratio.subject];
      std::vector<double> peer = times_[ratio.peer];
      if (subject.empty() || peer.empty()) {
        std::printf("%-56s not run\n", ratio.title);
        complete = false;
        continue;
      }
      std::vector<double> single;
      for (std::size_t i = 0; i < std::min(subject.size(), peer.size()); ++i) {
        single.push_back(subject[i] / peer[i]);
      }
      const double median = quantile(subject, 0.5) / quantile(peer, 0.5);
      const double low = quantile(single, 0.25);
      const double high = quantile(single, 0.75);
      std::printf("%-56s %7.3f  (%.3f to %.3f, ", ratio.title, median, low, high);
      std::printf(ratio.aim == kNoAim ? "no aim)\n" : "aim: %.3g)\n", ratio.aim);
      lines << nlohmann::ordered_json{{"title", ratio.title},
                                      {"ratio", median},
                                      {"low", low},
                                      {"high", high},
                                      {"aim", ratio.aim}}
                   .dump()
            << '\n';
    }
    for (const nlohmann::ordered_json& figure : figures_) {
      lines << figure.dump() << '\n';
    }
    return complete;
  }

 private:
  std::vector<nlohmann::ordered_json> figures_;
  std::map<std::string, std::vector<double>> times_;
};

}  // namespace

double quantile(std::vector<double>& values, double share) {
  std::sort(values.begin(), values.end());
  return values[static_cast<std::size_t>(share * static_cast<double>(values.size() - 1) + 0.5)];
}

int runAndCompare(int argc, char** argv, const std::vector<Ratio>& ratios) {
  constexpr const char* kFile = "--ratios=";
  std::string defaults[] = {"--benchmark_enable_random_interleaving=true",
                            "--benchmark_repetitions=21", "--benchmark_min_time=0.05"};
  std::vector<char*> arguments = {argv[0]};
  for (std::string& argument : defaults) {
    arguments.push_back(argument.data());
  }
  const char* file = nullptr;
  for (int i = 1; i < argc; ++i) {
    if (std::strncmp(argv[i], kFile, std::strlen(kFile)) == 0) {
      file = argv[i] + std::strlen(kFile);
    } else {
      arguments.push_back(argv[i]);
    }
  }
  int count = static_cast<int>(arguments.size());
  arguments.push_back(nullptr);
  benchmark::Initialize(&count, arguments.data());
  if (benchmark::ReportUnrecognizedArguments(count, arguments.data())) {
    return EXIT_FAILURE;
  }
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return reporter.report(ratios, file) ? EXIT_SUCCESS : EXIT_FAILURE;
}
