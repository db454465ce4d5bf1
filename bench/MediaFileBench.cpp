// The media file source, on a clip that ffmpeg makes: its frames per second and its first picture
// beside GStreamer's own run of the same description into a fakesink, and beside OpenCV's
// VideoCapture on an equal pipeline; and the pause at a loop's seam beside one start.

#include <chrono>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/MediaFileFrameSource.h>
#include <opencv2/videoio.hpp>

#include "Ratios.h"
#include "support/TempFolder.h"

namespace {

using media_backend::MediaFileFrameSource;
using media_backend::MediaFileFrameSourceConfig;
using std::chrono::steady_clock;

constexpr unsigned kWidth = 1280;
constexpr unsigned kHeight = 720;
constexpr int kFrames = 300;
constexpr std::chrono::seconds kPatience(10);

const std::vector<Ratio> kRatios = {
    {"all frames: time / GStreamer's own", "frames", "gst_frames", 1 / 0.97},
    {"all frames: time / OpenCV's", "frames", "opencv_frames", 1},
    {"first picture: time / GStreamer's first buffer", "first", "gst_first", 1.1},
    {"a loop's seam: pause / one start", "seam", "first", 1},
};

std::string g_clip;

MediaFileFrameSourceConfig config(bool loop) {
  MediaFileFrameSourceConfig result;
  result.path = g_clip;
  result.width = kWidth;
  result.height = kHeight;
  result.loop = loop;
  return result;
}

// Throws unless there is a picture.
void take(MediaFileFrameSource& source, const MediaFileFrameSourceConfig& config) {
  std::string error;
  if (source.capture(config, kPatience, error) == nullptr) {
    throw std::runtime_error("no picture: " + error);
  }
}

double since(steady_clock::time_point begin) {
  return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

void frames(benchmark::State& state) {
  for (auto _ : state) {
    MediaFileFrameSource source;
    for (int i = 0; i < kFrames; ++i) {
      take(source, config(false));
    }
  }
}

void first(benchmark::State& state) {
  for (auto _ : state) {
    const steady_clock::time_point begin = steady_clock::now();
    MediaFileFrameSource source;
    take(source, config(false));
    state.SetIterationTime(since(begin));
  }
}

void seam(benchmark::State& state) {
  for (auto _ : state) {
    MediaFileFrameSource source;
    for (int i = 0; i < kFrames; ++i) {
      take(source, config(true));
    }
    const steady_clock::time_point begin = steady_clock::now();
    take(source, config(true));
    state.SetIterationTime(since(begin));
  }
}

std::string description(const std::string& sink) {
  return "filesrc location=" + g_clip +
         " ! decodebin ! queue max-size-buffers=8 ! videoconvert ! videoscale "
         "! video/x-raw,format=NV12,width=" +
         std::to_string(kWidth) + ",height=" + std::to_string(kHeight) + " ! " + sink;
}

// Plays the description until the wanted message and returns the seconds that took.
double play(const char* sink, GstMessageType until) {
  const steady_clock::time_point begin = steady_clock::now();
  g_autoptr(GError) error = nullptr;
  g_autoptr(GstElement) pipeline = gst_parse_launch(description(sink).c_str(), &error);
  if (error != nullptr) {
    throw std::runtime_error(error->message);
  }
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  g_autoptr(GstBus) bus = gst_element_get_bus(pipeline);
  g_autoptr(GstMessage) message = gst_bus_timed_pop_filtered(
      bus, GST_CLOCK_TIME_NONE, static_cast<GstMessageType>(until | GST_MESSAGE_ERROR));
  const double seconds = since(begin);
  gst_element_set_state(pipeline, GST_STATE_NULL);
  if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR) {
    throw std::runtime_error("GStreamer cannot play the clip");
  }
  return seconds;
}

void gstFrames(benchmark::State& state) {
  for (auto _ : state) {
    play("fakesink sync=false", GST_MESSAGE_EOS);
  }
}

// A sink that prerolls has its first buffer.
void gstFirst(benchmark::State& state) {
  for (auto _ : state) {
    state.SetIterationTime(play("fakesink sync=false", GST_MESSAGE_ASYNC_DONE));
  }
}

void opencvFrames(benchmark::State& state) {
  for (auto _ : state) {
    cv::VideoCapture capture(description("appsink sync=false max-buffers=2"), cv::CAP_GSTREAMER);
    cv::Mat picture;
    int count = 0;
    while (capture.read(picture)) {
      ++count;
    }
    if (count != kFrames) {
      throw std::runtime_error("OpenCV reads " + std::to_string(count) + " frames");
    }
  }
}

}  // namespace

BENCHMARK(frames)->Iterations(1)->UseRealTime();
BENCHMARK(gstFrames)->Name("gst_frames")->Iterations(1)->UseRealTime();
BENCHMARK(opencvFrames)->Name("opencv_frames")->Iterations(1)->UseRealTime();
BENCHMARK(first)->Iterations(5)->UseManualTime();
BENCHMARK(gstFirst)->Name("gst_first")->Iterations(5)->UseManualTime();
BENCHMARK(seam)->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  const TempFolder folder;
  g_clip = folder / "clip.mp4";
  const std::string make = "ffmpeg -v error -f lavfi -i testsrc2=size=1280x720:rate=30 -frames:v " +
                           std::to_string(kFrames) +
                           " -pix_fmt yuv420p -c:v libx264 -preset fast " + g_clip;
  if (std::system(make.c_str()) != 0) {
    return EXIT_FAILURE;
  }
  media_backend::gst_source::ensure_initialized();
  return runAndCompare(argc, argv, kRatios);
}
