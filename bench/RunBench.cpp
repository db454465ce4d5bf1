// One camera with several outputs on the simulated i.MX board, whose encoder replays access units:
// the processor time of everything else, as on a board. Beside it gst-launch-1.0, which runs the
// library's descriptions, each behind a source of its own: a test source, which draws each frame,
// or imagefreeze, whose frames cost nothing, as the still images of media-station do. Arguments of
// a run: the size (0: 1920 x 1080 at 30 frames a second, 1: 3840 x 2160 at 60) and the outputs: a
// recording, RTSP, HTTP, each of the two with a client.

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "Command.h"
#include "Ratios.h"
#include "Recordings.h"
#include "support/TempFolder.h"

namespace {

constexpr double kSeconds = 5;
constexpr double kLong = 15;   // for what a client adds
constexpr double kSettle = 4;  // until the encoders replay

const std::vector<Ratio> kRatios = {
    {"1080p30, recording: CPU time / gst-launch", "station/0/1", "gst_launch/0/1", 1.05},
    {"1080p30, and RTSP: CPU time / gst-launch", "station/0/2", "gst_launch/0/2", 1.05},
    {"1080p30, and HTTP: CPU time / gst-launch", "station/0/3", "gst_launch/0/3", 1.05},
    {"2160p60, recording: CPU time / gst-launch", "station/1/1", "gst_launch/1/1", 1.05},
    {"2160p60, and RTSP: CPU time / gst-launch", "station/1/2", "gst_launch/1/2", 1.05},
    {"2160p60, and HTTP: CPU time / gst-launch", "station/1/3", "gst_launch/1/3", 1.05},
    {"1080p30, all three: CPU time / frames for nothing", "station/0/3", "frozen/0/3", kNoAim},
    {"2160p60, all three: CPU time / frames for nothing", "station/1/3", "frozen/1/3", kNoAim},
    {"1080p30, copied frames: what RTSP adds / recording", "added/0/2", "added/0/1", 0.6},
    {"1080p30, copied frames: what HTTP adds / recording", "added/0/3", "added/0/1", 0.6},
    {"2160p60, copied frames: what RTSP adds / recording", "added/1/2", "added/1/1", 0.6},
    {"2160p60, copied frames: what HTTP adds / recording", "added/1/3", "added/1/1", 0.6},
    {"a client of RTSP: 11th to 50th / 2nd to 10th", "clients/10/50", "clients/1/10", 1.1},
};

Format formatOf(const benchmark::State& state) {
  const bool small = state.range(0) == 0;
  return {small ? 1920 : 3840, small ? 1080 : 2160, small ? "30" : "60"};
}

// media-station with a recording and both servers, whose encoders run while there is a client.
class Station {
 public:
  explicit Station(const Format& format, const std::string& options = "")
      : station_("env SIMULATED_BOARD_ENCODER=replay " + std::string(MEDIA_STATION) + " run " +
                     drawPicture(format, folder_.path()) +
                     " --board imx --rtsp --rtsp-port 0 --http --http-port 0 --quiet --fps " +
                     format.fps + " --max-clients 64 " + options,
                 folder_ / "station"),
        rtsp_(station_.waitFor("serving rtsp://")),
        http_(station_.waitFor("serving http://")) {}

  void watchByRtsp(int clients = 1) {
    std::string sources;
    for (int i = 0; i < clients; ++i) {
      sources += " rtspsrc protocols=udp location=rtsp://" + rtsp_ + " ! fakesink sync=false";
    }
    addClient("gst-launch-1.0 -q" + sources);
  }
  void watchByHttp() { addClient("curl -s -o /dev/null http://" + http_ + "stream.h264"); }

  double measure(double seconds = kSeconds) const {
    for (const auto& client : clients_) {
      client->measure(0);  // throws if it has ended
    }
    return station_.measure(seconds);
  }

 private:
  void addClient(const std::string& command) {
    clients_.push_back(
        std::make_unique<Command>(command, folder_ / ("client" + std::to_string(clients_.size()))));
  }

  const TempFolder folder_;
  const Command station_;
  const std::string rtsp_;
  const std::string http_;
  std::vector<std::unique_ptr<Command>> clients_;
};

void settle() {
  std::this_thread::sleep_for(std::chrono::duration<double>(kSettle));
}

// Starts the clients of the outputs from `first` to `last`.
void watch(Station& station, long last, long first = 1) {
  if (first <= 2 && last >= 2) {
    station.watchByRtsp();
  }
  if (first <= 3 && last >= 3) {
    station.watchByHttp();
  }
  settle();
}

void station(benchmark::State& state) {
  const TempFolder segments;
  for (auto _ : state) {
    Station station(formatOf(state), "--record " + segments.path().string());
    watch(station, state.range(1));
    state.SetIterationTime(station.measure());
  }
}

// What the last of the outputs adds, with a camera whose frames are copied.
void added(benchmark::State& state) {
  const TempFolder segments;
  const long outputs = state.range(1);
  for (auto _ : state) {
    Station station(formatOf(state), "--feed copy --record " + segments.path().string());
    double before = 0;
    if (outputs > 1) {
      watch(station, outputs - 1);
      before = station.measure();
    }
    watch(station, outputs, outputs);
    state.SetIterationTime(station.measure() - before);
  }
}

// The processor time of one client, from those of a few to those of many. Every access unit is a
// key picture, so that they have a camera's size.
void clients(benchmark::State& state) {
  const long few = state.range(0);
  const long all = state.range(1);
  for (auto _ : state) {
    Station station({1280, 720, "30"}, "--key-distance 1");
    station.watchByRtsp(static_cast<int>(few));
    settle();
    const double before = station.measure(kLong);
    station.watchByRtsp(static_cast<int>(all - few));
    settle();
    state.SetIterationTime((station.measure(kLong) - before) / static_cast<double>(all - few));
  }
}

// The library's descriptions, each behind the source.
std::string peerPipelines(const std::string& source, long outputs, const std::string& folder) {
  std::string all = source + recorder(folder);
  if (outputs >= 2) {
    all += source + imxBackend().inputConversionChain(nullptr) +
           imxBackend().transportEncoderChain(h264(), "-1") +
           imxBackend().rtspPayloaderChain(h264().codec, 1400) +
           "! rtp.send_rtp_sink_0 rtpbin name=rtp rtp.send_rtp_src_0 ! udpsink host=127.0.0.1 "
           "port=16000 "
           "rtp.send_rtcp_src_0 ! udpsink host=127.0.0.1 port=16001 sync=false async=false ";
  }
  if (outputs >= 3) {
    const std::string named = imxBackend().httpEncoderChain(h264());
    const std::string name = " name=encoder";  // the RTSP chain has it, too
    const std::size_t after = named.find(name) + name.size();
    all += source + named.substr(0, after - name.size()) +
           named.substr(after, named.find("! appsink") - after) +
           "! tcpserversink host=127.0.0.1 port=16002 sync=false ";
  }
  return all;
}

void measurePeer(benchmark::State& state, const std::string& source, const TempFolder& folder) {
  const long outputs = state.range(1);
  for (auto _ : state) {
    const Command udp("gst-launch-1.0 -q udpsrc port=16000 ! fakesink sync=false", folder / "udp");
    const Command peer("env SIMULATED_BOARD_ENCODER=replay " + gstLaunch() +
                           peerPipelines(source, outputs, folder.path()),
                       folder / "peer");
    settle();
    std::unique_ptr<Command> tcp;
    if (outputs >= 3) {
      tcp = std::make_unique<Command>(
          "gst-launch-1.0 -q tcpclientsrc host=127.0.0.1 port=16002 ! fakesink sync=false",
          folder / "tcp");
      tcp->measure(1);
    }
    state.SetIterationTime(peer.measure(kSeconds));
  }
}

void gstLaunchPeer(benchmark::State& state) {
  const TempFolder folder;
  measurePeer(state, liveSource(formatOf(state)), folder);
}

void frozenPeer(benchmark::State& state) {
  const TempFolder folder;
  measurePeer(state,
              "filesrc location=" + drawPicture(formatOf(state), folder.path()) +
                  " ! pngdec ! videoconvert ! capsfilter caps=video/x-raw,format=NV12,"
                  "interlace-mode=progressive ! imagefreeze is-live=true ! capsfilter "
                  "caps=video/x-raw,framerate=" +
                  formatOf(state).fps + "/1 ",
              folder);
}

}  // namespace

BENCHMARK(station)->ArgsProduct({{0, 1}, {1, 2, 3}})->Iterations(1)->UseManualTime();
BENCHMARK(added)->ArgsProduct({{0, 1}, {1, 2, 3}})->Iterations(1)->UseManualTime();
BENCHMARK(clients)->Args({1, 10})->Args({10, 50})->Iterations(1)->UseManualTime();
BENCHMARK(gstLaunchPeer)
    ->Name("gst_launch")
    ->ArgsProduct({{0, 1}, {1, 2, 3}})
    ->Iterations(1)
    ->UseManualTime();
BENCHMARK(frozenPeer)->Name("frozen")->ArgsProduct({{0, 1}, {3}})->Iterations(1)->UseManualTime();

int main(int argc, char** argv) {
  return runAndCompare(argc, argv, kRatios);
}
