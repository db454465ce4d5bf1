// RTSP as clients see it: ffprobe over both transports, and GStreamer's rtspsrc.

#include <gst/app/gstappsink.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "Program.h"
#include "Server.h"

using nlohmann::json;

namespace {

constexpr double kSeconds = 10;
constexpr int kKeyDistance = 30;  // frames
constexpr unsigned int kMtu = 700;

struct Stream {
  const char* board;
  const char* codec;
  const char* ffmpegName;
  const char* encodingName;  // in SDP
  const char* depayloader;
};

void PrintTo(const Stream& stream, std::ostream* out) {
  *out << stream.board << ' ' << stream.codec;
}

// What ffprobe makes of the stream in ten seconds. A client that joins in mid-stream may first miss
// the pictures that others refer to.
json probe(const std::string& url, const char* transport, bool joins) {
  const Result result =
      run({"ffprobe", "-v", "error", "-rtsp_transport", transport, "-read_intervals", "%+10",
           "-count_frames", "-show_streams", "-of", "json", url});
  EXPECT_EQ(result.exitCode, 0) << transport << result.err;
  const std::regex allowed(
      joins ? "(.*(Could not find ref with POC|constructing the frame RPS).*\n)*" : "");
  EXPECT_TRUE(std::regex_match(result.err, allowed)) << transport << ": " << result.err;
  const json streams = json::parse(result.out)["streams"];
  return streams.size() == 1 ? streams[0] : json::object();
}

// What rtspsrc gives: RTP packets, and behind its depayloader access units.
struct Reception {
  std::string caps;
  std::size_t largest = 0;  // bytes of a packet
  std::size_t units = 0;
  int unitsBeforeKey = 0;
};

Reception receive(const std::string& url, const char* transport, const Stream& stream,
                  double seconds) {
  const std::string description =
      std::string("rtspsrc latency=0 protocols=") + transport + " location=" + url +
      " ! tee name=t ! queue ! appsink name=packets sync=false t. ! queue ! " + stream.depayloader +
      " ! appsink name=units sync=false";
  g_autoptr(GstElement) pipeline = gst_parse_launch(description.c_str(), nullptr);
  g_autoptr(GstElement) packets = gst_bin_get_by_name(GST_BIN(pipeline), "packets");
  g_autoptr(GstElement) units = gst_bin_get_by_name(GST_BIN(pipeline), "units");
  gst_element_set_state(pipeline, GST_STATE_PLAYING);

  Reception reception;
  bool keySeen = false;
  const gint64 end = g_get_monotonic_time() + static_cast<gint64>(seconds * G_USEC_PER_SEC);
  while (g_get_monotonic_time() < end) {
    g_autoptr(GstSample) packet =
        gst_app_sink_try_pull_sample(GST_APP_SINK(packets), GST_SECOND / 100);
    if (packet != nullptr) {
      g_autofree gchar* caps = gst_caps_to_string(gst_sample_get_caps(packet));
      reception.caps = caps;
      reception.largest =
          std::max(reception.largest, gst_buffer_get_size(gst_sample_get_buffer(packet)));
    }
    g_autoptr(GstSample) unit = gst_app_sink_try_pull_sample(GST_APP_SINK(units), 0);
    if (unit != nullptr) {
      ++reception.units;
      keySeen = keySeen ||
                !GST_BUFFER_FLAG_IS_SET(gst_sample_get_buffer(unit), GST_BUFFER_FLAG_DELTA_UNIT);
      reception.unitsBeforeKey += keySeen ? 0 : 1;
    }
  }
  gst_element_set_state(pipeline, GST_STATE_NULL);
  return reception;
}

class ServeRtsp : public testing::TestWithParam<Stream> {};

// Two clients for ten seconds, one a transport, while a third comes and goes.
TEST_P(ServeRtsp, SeveralClientsAtOnce) {
  const Stream& stream = GetParam();
  Server server("rtsp",
                {"--board", stream.board, "--codec", stream.codec, "--mtu", std::to_string(kMtu)});
  auto tcp = std::async(std::launch::async, probe, server.url(), "tcp", false);
  server.awaitLine("camera runs");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  auto udp = std::async(std::launch::async, probe, server.url(), "udp", true);
  std::this_thread::sleep_for(std::chrono::seconds(2));
  const Reception reception = receive(server.url(), "tcp", stream, 3);

  for (const json& probed : {tcp.get(), udp.get()}) {
    EXPECT_EQ(probed.value("codec_name", ""), stream.ffmpegName);
    EXPECT_EQ(probed.value("width", 0), 320);
    EXPECT_EQ(probed.value("height", 0), 180);
    const int frames = std::stoi(probed.value("nb_read_frames", "0"));
    EXPECT_LE(frames, kSeconds * 30 + 12);
    EXPECT_GE(frames, (kSeconds * 30 - kKeyDistance) * kLeastShare);
  }
  EXPECT_LE(reception.largest, kMtu);
  EXPECT_GT(reception.largest, kMtu - 10);
  EXPECT_GT(reception.units, (3 * 30 - kKeyDistance) * kLeastShare);
  EXPECT_LE(reception.unitsBeforeKey, kKeyDistance);
  for (const std::string& field :
       {std::string("payload=(int)96"), std::string("clock-rate=(int)90000"),
        std::string("encoding-name=(string)") + stream.encodingName}) {
    EXPECT_NE(reception.caps.find(field), std::string::npos) << reception.caps;
  }
  server.stop();
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, ServeRtsp,
    testing::Values(Stream{"imx", "h264", "h264", "H264", "rtph264depay ! h264parse"},
                    Stream{"nvidia", "h265", "hevc", "H265", "rtph265depay ! h265parse"}),
    [](const auto& instance) { return std::string(instance.param.codec); });

// A player that is halted reads nothing: it holds up nobody else, and is thrown out.
TEST(ServeRtspHalted, PlayerOverTcpHoldsUpNobodyOverUdp) {
#if defined(EMULATED)
  GTEST_SKIP() << "so few pictures are encoded that nobody is late";
#endif
  constexpr double kReceived = 18;  // seconds
  const Stream stream{"imx", "h264", "h264", "H264", "rtph264depay ! h264parse"};
  Server server("rtsp", {"--board", stream.board, "--bitrate", "20000000"});
  Program player({"ffmpeg", "-v", "error", "-rtsp_transport", "tcp", "-i", server.url(), "-t", "60",
                  "-progress", "pipe:1", "-f", "null", "-"});
  for (std::string line = "-"; !line.empty() && line.rfind("frame=", 0) != 0;) {
    line = player.readLine();
  }
  player.signal(SIGSTOP);
  std::this_thread::sleep_for(std::chrono::seconds(2));  // until the kernel takes no more
  const Reception reception = receive(server.url(), "udp", stream, kReceived);
  ASSERT_GT(reception.units, (kReceived * 30 - kKeyDistance) * kLeastShare);

  const auto begin = std::chrono::steady_clock::now();
  player.signal(SIGCONT);
  player.wait();
  EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30))
      << "the connection ended only because nobody used it";
  server.stop();
}

}  // namespace
