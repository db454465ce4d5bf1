// Recording on the simulated i.MX board: the processor time of media-station beside that of
// gst-launch-1.0, which runs the library's own recorder description with a videotestsrc in front.
// Both record the same still picture into segments, at the pace of a camera. Arguments of a run:
// the size (0: 1280 x 720, 1: 1920 x 1080) and the frames per second. The counter gives the frames
// that media-station dropped.

#include <cstdlib>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Command.h"
#include "Ratios.h"
#include "Recordings.h"
#include "support/TempFolder.h"

namespace {

constexpr double kSeconds = 6;
constexpr double kSettle = 1;

const std::vector<Ratio> kRatios = {
    {"720p, 30 frames a second: CPU time / gst-launch", "station/0/30", "gst_launch/0/30", 1.05},
    {"720p, 60 frames a second: CPU time / gst-launch", "station/0/60", "gst_launch/0/60", 1.05},
    {"1080p, 30 frames a second: CPU time / gst-launch", "station/1/30", "gst_launch/1/30", 1.05},
    {"1080p, 60 frames a second: CPU time / gst-launch", "station/1/60", "gst_launch/1/60", 1.05},
};

Format formatOf(const benchmark::State& state) {
  const bool small = state.range(0) == 0;
  return {small ? 1280 : 1920, small ? 720 : 1080, std::to_string(state.range(1))};
}

double measure(const Command& command) {
  command.measure(kSettle);
  return command.measure(kSeconds);
}

double droppedFrames(const std::string& output) {
  const std::size_t at = output.find(" dropped");
  return at == std::string::npos ? 0 : std::atof(&output[output.rfind(' ', at - 1)]);
}

void station(benchmark::State& state) {
  const TempFolder folder;
  const std::string picture = drawPicture(formatOf(state), folder.path());
  for (auto _ : state) {
    Command record(std::string(MEDIA_STATION) + " record " + picture + " -o " +
                       (folder / "segments") + " --board imx --segment-seconds 2 --fps " +
                       formatOf(state).fps,
                   folder / "output");
    state.SetIterationTime(measure(record));
    state.counters["dropped"] = droppedFrames(record.end());
  }
}

void gstLaunchPeer(benchmark::State& state) {
  const TempFolder folder;
  for (auto _ : state) {
    const Command peer(gstLaunch() + liveSource(formatOf(state)) + recorder(folder.path()),
                       folder / "output");
    state.SetIterationTime(measure(peer));
  }
}

}  // namespace

BENCHMARK(station)->ArgsProduct({{0, 1}, {30, 60}})->Iterations(1)->UseManualTime();
BENCHMARK(gstLaunchPeer)
    ->Name("gst_launch")
    ->ArgsProduct({{0, 1}, {30, 60}})
    ->Iterations(1)
    ->UseManualTime();

int main(int argc, char** argv) {
  return runAndCompare(argc, argv, kRatios);
}
