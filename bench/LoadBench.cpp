// Loading the library, beside an empty one that is linked against the same libraries. Each is
// loaded by a child of a process that has loaded neither; the counters give the sizes of the files
// without what is for the debugger.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <dlfcn.h>

#include "Child.h"
#include "Ratios.h"
#include "support/TempFolder.h"

namespace {

const std::vector<Ratio> kRatios = {
    {"loading the library / an empty one", "library", "empty", 1.1},
};

void load(benchmark::State& state, const char* path) {
  for (auto _ : state) {
    state.SetIterationTime(secondsInChild([path] {
      if (dlopen(path, RTLD_NOW | RTLD_GLOBAL) == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        _exit(EXIT_FAILURE);
      }
    }));
  }
  const TempFolder folder;
  const std::string stripped = folder / "stripped.so";
  if (std::system(("strip -o " + stripped + " " + path).c_str()) != 0) {
    state.SkipWithError("strip fails");
    return;
  }
  state.counters["KiB"] = static_cast<double>(std::filesystem::file_size(stripped)) / 1024;
}

}  // namespace

BENCHMARK_CAPTURE(load, library, MEDIA_BACKEND_LIBRARY)
    ->Name("library")
    ->Iterations(3)
    ->UseManualTime();
BENCHMARK_CAPTURE(load, empty, EMPTY_LIBRARY)->Name("empty")->Iterations(3)->UseManualTime();

int main(int argc, char** argv) {
  return runAndCompare(argc, argv, kRatios);
}
