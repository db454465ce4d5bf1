// Recording on the simulated i.MX board: the processor time of media-station beside that of
// gst-launch-1.0, which runs the library's own recorder description with a videotestsrc in front.
// Both record the same still picture into segments, at the pace of a camera. Arguments of a run:
// the size (0: 1280 x 720, 1: 1920 x 1080) and the frames per second. The counter gives the frames
// that media-station dropped.

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <media_backend/GstVideoBackend.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Ratios.h"
#include "support/Profiles.h"
#include "support/TempFolder.h"

namespace {

using media_backend::GstVideoBackend;

constexpr int kSeconds = 6;
constexpr int kFramesMissing = 9;  // exit code of media-station record

const std::vector<Ratio> kRatios = {
    {"720p, 30 frames a second: CPU time / gst-launch", "station/0/30", "gst_launch/0/30", 1.05},
    {"720p, 60 frames a second: CPU time / gst-launch", "station/0/60", "gst_launch/0/60", 1.05},
    {"1080p, 30 frames a second: CPU time / gst-launch", "station/1/30", "gst_launch/1/30", 1.05},
    {"1080p, 60 frames a second: CPU time / gst-launch", "station/1/60", "gst_launch/1/60", 1.05},
};

struct Format {
  int width;
  int height;
  std::string fps;
};

Format formatOf(const benchmark::State& state) {
  const bool small = state.range(0) == 0;
  return {small ? 1280 : 1920, small ? 720 : 1080, std::to_string(state.range(1))};
}

// Runs a shell command with its output in the file, and returns the processor time it took, with
// that of its children.
double run(const std::string& command, const std::string& output) {
  const pid_t child = fork();
  if (child == 0) {
    const int file = open(output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(file, STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
    _exit(127);
  }
  int status = 0;
  rusage usage{};
  const bool ended = wait4(child, &status, 0, &usage) == child && WIFEXITED(status);
  if (!ended || (WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != kFramesMissing)) {
    throw std::runtime_error("failed: " + command);
  }
  const auto seconds = [](const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Colour bars without a moving part: an encoder has the same to do with them from either camera.
std::string testPicture(const Format& format, const char* caps) {
  return " pattern=smpte100 ! video/x-raw," + std::string(caps) +
         "width=" + std::to_string(format.width) + ",height=" + std::to_string(format.height) +
         ",framerate=" + format.fps + "/1 ";
}

double droppedFrames(const std::string& file) {
  std::ifstream output(file);
  std::string word;
  std::string before;
  for (; output >> word && word.rfind("dropped", 0) != 0; before = word) {
  }
  return std::atof(before.c_str());
}

void station(benchmark::State& state) {
  const Format format = formatOf(state);
  const TempFolder folder;
  const std::string picture = folder / "picture.png";
  run("gst-launch-1.0 -q videotestsrc num-buffers=1" + testPicture(format, "format=RGB,") +
          "! pngenc ! filesink location=" + picture,
      "/dev/null");
  const std::string command = std::string(MEDIA_STATION) + " record " + picture + " -o " +
                              (folder / "segments") + " --board imx --fps " + format.fps +
                              " --segment-seconds 2 --duration ";
  for (auto _ : state) {
    const double first = run(command + "0.001", folder / "output");
    const double all = run(command + std::to_string(kSeconds), folder / "output");
    state.SetIterationTime(all - first);
  }
  state.counters["dropped"] = droppedFrames(folder / "output");
}

void gstLaunch(benchmark::State& state) {
  const Format format = formatOf(state);
  const TempFolder folder;
  GstVideoBackend::EncoderConfig config;
  config.codec = GstVideoBackend::Codec::H264;
  std::string recorder = GstVideoBackend(imxProfile()).recorderPipeline(config, 2, false, false);
  recorder = recorder.substr(recorder.find('!'));  // without its application source
  for (std::size_t at = 0; (at = recorder.find('(', at)) != std::string::npos; at += 2) {
    recorder.insert(at, 1, '\\');
  }
  const auto command = [&](int frames) {
    return std::string("env GST_PLUGIN_PATH=") + BOARD_FOLDER +
           " SIMULATED_BOARD=imx gst-launch-1.0 -q videotestsrc is-live=true num-buffers=" +
           std::to_string(frames) + testPicture(format, "format=NV12,interlace-mode=progressive,") +
           recorder + " location=" + (folder / "segment%d.ts");
  };
  for (auto _ : state) {
    const double first = run(command(1), folder / "output");
    const double all = run(command(kSeconds * std::stoi(format.fps)), folder / "output");
    state.SetIterationTime(all - first);
  }
}

}  // namespace

BENCHMARK(station)->ArgsProduct({{0, 1}, {30, 60}})->Iterations(1)->UseManualTime();
BENCHMARK(gstLaunch)
    ->Name("gst_launch")
    ->ArgsProduct({{0, 1}, {30, 60}})
    ->Iterations(1)
    ->UseManualTime();

int main(int argc, char** argv) {
  return runAndCompare(argc, argv, kRatios);
}
