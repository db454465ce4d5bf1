// From the camera to a client's picture over RTSP: every picture carries the time at which it was
// made, which the client reads from the decoded picture. Beside the station's server one that has
// GStreamer's own test picture for a camera and is otherwise the same: one frame time more is
// allowed, so it counts with the peer. RTSP_LATENCY_SECONDS, 30 if not set, is how long the run is
// whose last sixth is compared with its first.

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <benchmark/benchmark.h>
#include <gst/app/gstappsink.h>
#include <gst/rtsp-server/rtsp-server.h>
#include <gst/video/video.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>

#include "Ratios.h"
#include "StampingCamera.h"
#include "camera/LiveCamera.h"
#include "rtsp/Server.h"
#include "support/Profiles.h"

namespace {

using media_backend::GstVideoBackend;

const std::vector<Ratio> kRatios = {
    {"latency / the peer's and one frame time", "station", "peer", 1},
    {"latency after a while / at the beginning", "late", "early", 1.1},
};

constexpr unsigned int kWidth = 640;
constexpr unsigned int kHeight = 360;
constexpr int kFps = StampingCamera::kFps;
constexpr double kFrameTime = 1.0 / kFps;
constexpr int kSettle = 30;    // pictures that are not looked at
constexpr int kPictures = 60;  // that are

GstVideoBackend::EncoderConfig config() {
  GstVideoBackend::EncoderConfig result;
  result.codec = GstVideoBackend::Codec::H264;
  return result;
}

// The peer: the library's description behind GStreamer's test source.
class PeerServer {
 public:
  explicit PeerServer(const GstVideoBackend& backend) {
    gst_rtsp_server_set_service(server_.get(), "0");
    GstRTSPMediaFactory* const factory = gst_rtsp_media_factory_new();
    const std::string description =
        "( videotestsrc name=camera is-live=true pattern=black ! video/x-raw,format=NV12,width=" +
        std::to_string(kWidth) + ",height=" + std::to_string(kHeight) +
        ",framerate=" + std::to_string(kFps) + "/1,interlace-mode=progressive " +
        backend.inputConversionChain(nullptr) + backend.transportEncoderChain(config(), "-1") +
        backend.rtspPayloaderChain(config().codec, 1400) + ")";
    gst_rtsp_media_factory_set_launch(factory, description.c_str());
    gst_rtsp_media_factory_set_shared(factory, TRUE);
    g_signal_connect(factory, "media-configure", G_CALLBACK(onMedia), nullptr);
    const station::GstPtr<GstRTSPMountPoints> mounts(
        gst_rtsp_server_get_mount_points(server_.get()));
    gst_rtsp_mount_points_add_factory(mounts.get(), "/camera", factory);
    source_ = gst_rtsp_server_attach(server_.get(), nullptr);
  }
  ~PeerServer() { g_source_remove(source_); }
  PeerServer(const PeerServer&) = delete;
  PeerServer& operator=(const PeerServer&) = delete;

  std::string url() const {
    return "rtsp://127.0.0.1:" + std::to_string(gst_rtsp_server_get_bound_port(server_.get())) +
           "/camera";
  }

 private:
  static void onMedia(GstRTSPMediaFactory* /*factory*/, GstRTSPMedia* media, gpointer /*unused*/) {
    const station::GstPtr<GstElement> bin(gst_rtsp_media_get_element(media));
    const station::GstPtr<GstElement> camera(gst_bin_get_by_name(GST_BIN(bin.get()), "camera"));
    const station::GstPtr<GstPad> pad(gst_element_get_static_pad(camera.get(), "src"));
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, stamp, nullptr, nullptr);
  }

  static GstPadProbeReturn stamp(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer /*unused*/) {
    GstBuffer* const buffer = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(info));
    GST_PAD_PROBE_INFO_DATA(info) = buffer;
    GstMapInfo map;
    if (gst_buffer_map(buffer, &map, GST_MAP_WRITE)) {
      writeTime(map.data, kWidth, kWidth);
      gst_buffer_unmap(buffer, &map);
    }
    return GST_PAD_PROBE_OK;
  }

  const station::GstPtr<GstRTSPServer> server_{gst_rtsp_server_new()};
  guint source_ = 0;
};

// Watches the stream and calls `look` with the age of each picture until that returns false.
void watch(const std::string& url, const std::function<bool(double)>& look) {
  g_autoptr(GError) error = nullptr;
  g_autoptr(GstElement) client = gst_parse_launch(
      ("rtspsrc location=" + url +
       " latency=0 protocols=tcp ! rtph264depay ! avdec_h264 max-threads=1 ! appsink name=sink "
       "sync=false")
          .c_str(),
      &error);
  if (error != nullptr) {
    throw std::runtime_error(error->message);
  }
  const station::GstPtr<GstElement> sink(gst_bin_get_by_name(GST_BIN(client), "sink"));
  gst_element_set_state(client, GST_STATE_PLAYING);
  bool more = true;
  while (more) {
    g_autoptr(GstSample) sample =
        gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 10 * GST_SECOND);
    if (sample == nullptr) {
      gst_element_set_state(client, GST_STATE_NULL);
      throw std::runtime_error("no picture from " + url);
    }
    GstVideoInfo info;
    gst_video_info_from_caps(&info, gst_sample_get_caps(sample));
    GstVideoFrame frame;
    gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample), GST_MAP_READ);
    more =
        look(pictureAge(static_cast<const std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)),
                        static_cast<std::size_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0)), kWidth));
    gst_video_frame_unmap(&frame);
  }
  gst_element_set_state(client, GST_STATE_NULL);
}

std::vector<double> agesOf(const std::string& url, std::size_t count) {
  std::vector<double> ages;
  watch(url, [&ages, count](double seconds) {
    ages.push_back(seconds);
    return ages.size() < count;
  });
  return ages;
}

std::string g_stationUrl;
std::string g_peerUrl;

double latency(const std::string& url) {
  std::vector<double> ages = agesOf(url, kSettle + kPictures);
  ages.erase(ages.begin(), ages.begin() + kSettle);
  return quantile(ages, 0.5);
}

void stationLatency(benchmark::State& state) {
  for (auto _ : state) {
    state.SetIterationTime(latency(g_stationUrl));
  }
}

void peerLatency(benchmark::State& state) {
  for (auto _ : state) {
    state.SetIterationTime(latency(g_peerUrl) + kFrameTime);
  }
}

struct Growth {
  double early;
  double late;
};

Growth growth() {
  const char* const text = std::getenv("RTSP_LATENCY_SECONDS");
  const auto sixth =
      static_cast<std::size_t>(std::max(text == nullptr ? 30 : std::atoi(text), 6) * kFps / 6);
  const std::vector<double> ages = agesOf(g_stationUrl, kSettle + 6 * sixth);
  std::vector<double> early(ages.begin() + kSettle,
                            ages.begin() + kSettle + static_cast<std::ptrdiff_t>(sixth));
  std::vector<double> late(ages.end() - static_cast<std::ptrdiff_t>(sixth), ages.end());
  return {quantile(early, 0.5), quantile(late, 0.5)};
}

void partOfGrowth(benchmark::State& state, double Growth::*part) {
  static const Growth kGrowth = growth();
  for (auto _ : state) {
    state.SetIterationTime(kGrowth.*part);
  }
}

}  // namespace

BENCHMARK(stationLatency)->Name("station")->Iterations(1)->UseManualTime();
BENCHMARK(peerLatency)->Name("peer")->Iterations(1)->UseManualTime();
BENCHMARK_CAPTURE(partOfGrowth, early, &Growth::early)
    ->Name("early")
    ->Iterations(1)
    ->UseManualTime();
BENCHMARK_CAPTURE(partOfGrowth, late, &Growth::late)->Name("late")->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  gst_init(nullptr, nullptr);
  std::string error;
  if (!simulated_board::registerElements(nullptr, "nvidia", error)) {
    std::fprintf(stderr, "%s\n", error.c_str());
    return EXIT_FAILURE;
  }
  const GstVideoBackend backend(nvidiaProfile());
  station::ServeOptions options;
  options.encoder = config();
  station::LiveCamera camera(std::make_unique<StampingCamera>(backend, kWidth, kHeight, false));
  int exitCode = EXIT_FAILURE;
  {
    station::RtspServer server(backend, camera, nullptr, options);
    camera.start();
    const PeerServer peer(backend);
    g_stationUrl = "rtsp://" + server.listener().authority() + options.path;
    g_peerUrl = peer.url();
    GMainLoop* const loop = g_main_loop_new(nullptr, FALSE);
    std::thread client([&] {
      exitCode = runAndCompare(argc, argv, kRatios);
      g_main_loop_quit(loop);
    });
    g_main_loop_run(loop);
    client.join();
    g_main_loop_unref(loop);
  }
  return exitCode;
}
