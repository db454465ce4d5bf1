// The first instance() of a process, beside the same lookups in the registry. Each runs in a child
// of a process that has read the registry.

#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "Child.h"
#include "Ratios.h"

namespace {

const std::vector<Ratio> kRatios = {
    {"first instance() / its lookups", "instance", "lookups", 1.05},
};

void instance() {
  benchmark::DoNotOptimize(media_backend::GstVideoBackend::instance().available());
}

void lookups() {
  for (const char* name : {"nvvidconv", "nvvideoconvert", "nvv4l2h264enc", "nvv4l2h265enc",
                           "nvv4l2av1enc", "av1parse", "nvjpegenc"}) {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(name);
    benchmark::DoNotOptimize(factory);
  }
}

void run(benchmark::State& state, void (*function)()) {
  for (auto _ : state) {
    state.SetIterationTime(secondsInChild(function));
  }
}

}  // namespace

BENCHMARK_CAPTURE(run, instance, instance)->Name("instance")->Iterations(5)->UseManualTime();
BENCHMARK_CAPTURE(run, lookups, lookups)->Name("lookups")->Iterations(5)->UseManualTime();

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  std::string error;
  if (!simulated_board::registerElements(nullptr, "nvidia", error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return EXIT_FAILURE;
  }
  lookups();  // what the first lookup of a process does for all
  return runAndCompare(argc, argv, kRatios);
}
