// Many media file sources in one process, each captured from by a thread of its own as fast as it
// goes: the processor time that a frame takes, beside that of a single source. The counters give
// the memory that every further source takes. Argument of a run: the number of sources.

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <malloc.h>

#include <benchmark/benchmark.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/MediaFileFrameSource.h>
#include <unistd.h>

#include "Ratios.h"
#include "support/TempFolder.h"

namespace {

using media_backend::MediaFileFrameSource;

constexpr int kFrames = 120;

const std::vector<Ratio> kRatios = {
    {"4 sources: CPU time of a frame / with 1 source", "sources/4", "sources/1", 1.1},
    {"16 sources: CPU time of a frame / with 1 source", "sources/16", "sources/1", 1.1},
    {"64 sources: CPU time of a frame / with 1 source", "sources/64", "sources/1", 1.1},
};

media_backend::MediaFileFrameSourceConfig g_config;

double processorSeconds() {
  timespec time{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double residentMiB() {
  std::ifstream file("/proc/self/statm");
  double pages = 0;
  file >> pages >> pages;
  return pages * static_cast<double>(sysconf(_SC_PAGESIZE)) / (1 << 20);
}

// Captures the whole clip; false if a frame is missing.
bool captureAll(MediaFileFrameSource& source) {
  std::string error;
  for (int i = 0; i < kFrames; ++i) {
    if (source.capture(g_config, std::chrono::seconds(60), error) == nullptr) {
      return false;
    }
  }
  return true;
}

void sources(benchmark::State& state) {
  const auto count = static_cast<std::size_t>(state.range(0));
  double memory = 0;
  for (auto _ : state) {
    malloc_trim(0);  // what earlier runs left would be taken again unseen
    const double before = residentMiB();
    const double begin = processorSeconds();
    std::vector<MediaFileFrameSource> all(count);
    std::vector<std::thread> threads;
    std::vector<char> complete(count);
    for (std::size_t i = 0; i < count; ++i) {
      threads.emplace_back([&all, &complete, i] { complete[i] = captureAll(all[i]) ? 1 : 0; });
    }
    for (std::thread& thread : threads) {
      thread.join();
    }
    const auto frames = static_cast<double>(count * kFrames);
    state.SetIterationTime((processorSeconds() - begin) / frames);
    memory = (residentMiB() - before) / static_cast<double>(count);
    for (const char one : complete) {
      if (one == 0) {
        state.SkipWithError("frames are missing");
      }
    }
  }
  state.counters["MiB a source"] = memory;
}

}  // namespace

BENCHMARK(sources)->Arg(1)->Arg(4)->Arg(16)->Arg(64)->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  const TempFolder folder;
  g_config.path = folder / "clip.mp4";
  g_config.width = 640;
  g_config.height = 360;
  g_config.loop = false;
  const std::string make = "ffmpeg -v error -f lavfi -i testsrc2=size=640x360:rate=30 -frames:v " +
                           std::to_string(kFrames) +
                           " -pix_fmt yuv420p -c:v libx264 -preset fast " + g_config.path;
  if (std::system(make.c_str()) != 0) {
    return EXIT_FAILURE;
  }
  media_backend::gst_source::ensure_initialized();
  return runAndCompare(argc, argv, kRatios);
}
