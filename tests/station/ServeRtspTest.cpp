// RTSP as clients see it: ffprobe over both transports, and GStreamer's rtspsrc.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <future>
#include <optional>
#include <regex>
#include <thread>

#include <gio/gio.h>
#include <gst/rtsp/rtsp.h>

#include "Program.h"
#include "Server.h"
#include "support/Pipeline.h"

namespace {

// Number of frames that ffprobe decodes in ten seconds.
int framesReceived(const std::string& url, const std::string& transport, const std::string& codec) {
  const Result result =
      run({"ffprobe", "-v", "error", "-rtsp_transport", transport, "-read_intervals", "%+10",
           "-count_frames", "-show_entries", "stream=codec_name,width,height,nb_read_frames", "-of",
           "csv=p=0", url});
  EXPECT_EQ(result.exitCode, 0) << transport << result.err;
  // A client that joins in mid-stream may first miss the pictures that others refer to.
  const std::regex allowed(
      transport == "tcp" ? ""
                         : "(.*(Could not find ref with POC|constructing the frame RPS).*\n)*");
  EXPECT_TRUE(std::regex_match(result.err, allowed)) << transport << ": " << result.err;
  std::smatch match;
  EXPECT_TRUE(std::regex_match(result.out, match, std::regex(codec + ",320,180,(\\d+)\n")))
      << result.out;
  return match.empty() ? 0 : std::stoi(match[1]);
}

// Bytes of the largest of a hundred RTP packets.
gsize largestPacket(const std::string& url) {
  Pipeline client("rtspsrc protocols=tcp location=" + url + " ! appsink name=out sync=false");
  gsize largest = 0;
  for (int i = 0; i < 100; ++i) {
    g_autoptr(GstSample) packet = client.pull();
    largest = std::max(largest, gst_buffer_get_size(gst_sample_get_buffer(packet)));
  }
  return largest;
}

// Board, codec, and ffmpeg's name of it.
class ServeRtsp : public testing::TestWithParam<std::tuple<std::string, std::string, std::string>> {
};

// Three clients for ten seconds, one a transport, while another looks at packets and goes.
TEST_P(ServeRtsp, SeveralClientsAtOnce) {
  const auto& [board, codec, ffmpegName] = GetParam();
  Server server("rtsp", {"--board", board, "--codec", codec, "--mtu", "700"});
  auto tcp = std::async(std::launch::async, framesReceived, server.url(), "tcp", ffmpegName);
  server.awaitLine("camera runs");
  std::this_thread::sleep_for(std::chrono::seconds(1));
  auto udp = std::async(std::launch::async, framesReceived, server.url(), "udp", ffmpegName);
  auto tunnel = std::async(std::launch::async, framesReceived, server.url(), "http", ffmpegName);
  const gsize largest = largestPacket(server.url());
  EXPECT_LE(largest, 700U);
  EXPECT_GT(largest, 690U);
  for (const int frames : {tcp.get(), udp.get(), tunnel.get()}) {
    EXPECT_LE(frames, 10 * 30 + 12);
    EXPECT_GE(frames, (10 * 30 - 30) * kLeastShare);  // from a key picture on
  }
  server.stop();
}

INSTANTIATE_TEST_SUITE_P(Codecs, ServeRtsp,
                         testing::Values(std::tuple{"imx", "h264", "h264"},
                                         std::tuple{"nvidia", "h265", "hevc"}),
                         [](const auto& instance) { return std::get<1>(instance.param); });

// A tone of -5 dB, whose fallback would be silent. A client may take the sound alone.
TEST(ServeRtspSound, ArrivesBesideTheVideoOrAlone) {
  Server server("rtsp", {"--board", "imx", "--mic", "test"});
  const std::tuple<const char*, const char*, const char*> rows[] = {
      {"tcp", "video+audio", "Video: h264"},
      {"udp", "video+audio", "Video: h264"},
      {"tcp", "audio", "Audio: opus, 48000 Hz"}};
  for (const auto& [transport, media, expected] : rows) {
    const Result result = run({"ffmpeg", "-nostdin", "-hide_banner", "-rtsp_transport", transport,
                               "-allowed_media_types", media, "-i", server.url(), "-t", "1.5",
                               "-af", "volumedetect", "-f", "null", "-"});
    EXPECT_NE(result.err.find(expected), std::string::npos) << result.err;
    std::smatch volume;
    ASSERT_TRUE(std::regex_search(result.err, volume, std::regex("mean_volume: (-[0-9.]+)")))
        << result.err;
    EXPECT_GT(std::stod(volume[1]), -20);
  }
  server.stop();
}

// All three streams at once, over both transports; each packet decodes, and names the mission.
TEST(ServeRtspKlv, ArrivesWholeBesideVideoAndSound) {
  Server server("rtsp", {"--board", "imx", "--mic", "test", "--klv", "--telemetry", "demo",
                         "--mission", "North ridge"});
  Program reader(station({"klv", server.url()}));
  for (int i = 0; i < 20; ++i) {
    const std::string packet = reader.readLine();
    EXPECT_NE(packet.find("North ridge"), std::string::npos) << packet;
    EXPECT_EQ(packet.find("\"error\""), std::string::npos) << packet;
  }
  for (const char* const transport : {"tcp", "udp"}) {
    const Result result =
        run({"ffprobe", "-v", "error", "-rtsp_transport", transport, "-read_intervals", "%+2",
             "-count_packets", "-show_entries", "stream=codec_type,nb_read_packets", "-of",
             "csv=p=0", server.url()});
    const std::regex all("video,\\d{2,}\ndata,\\d{2,}\naudio,\\d{2,}\n");
    EXPECT_TRUE(std::regex_match(result.out, all)) << result.out << result.err;
  }
  reader.signal(SIGTERM);
  reader.wait();
  server.stop();
}

// A client over TCP by GStreamer's connection, which has set up the first streams.
class RawClient {
 public:
  using Headers = std::vector<std::pair<GstRTSPHeaderField, std::string>>;

  explicit RawClient(std::string url, int streams = 3) : url_(std::move(url)) {
    GstRTSPUrl* parsed = nullptr;
    gst_rtsp_url_parse(url_.c_str(), &parsed);
    gst_rtsp_connection_create(parsed, &connection_);
    gst_rtsp_url_free(parsed);
    gst_rtsp_connection_connect_usec(connection_, kTimeout);
    gst_rtsp_message_new(&message_);
    EXPECT_EQ(request(GST_RTSP_DESCRIBE), "200 ");
    for (int i = 0; i < streams; ++i) {
      const Headers transport = {{GST_RTSP_HDR_TRANSPORT, "RTP/AVP/TCP;unicast"}};
      EXPECT_EQ(request(GST_RTSP_SETUP, transport, "/stream=" + std::to_string(i)), "200 ");
    }
  }
  ~RawClient() {
    gst_rtsp_message_free(message_);
    gst_rtsp_connection_free(connection_);
  }
  RawClient(const RawClient&) = delete;
  RawClient& operator=(const RawClient&) = delete;

  // Status and range of the answer.
  std::string request(GstRTSPMethod method, const Headers& headers = {},
                      const std::string& stream = "") {
    GstRTSPMessage* request = nullptr;
    gst_rtsp_message_new_request(&request, method, (url_ + stream).c_str());
    for (const auto& [field, value] : headers) {
      gst_rtsp_message_add_header(request, field, value.c_str());
    }
    gst_rtsp_connection_send_usec(connection_, request, kTimeout);
    gst_rtsp_message_free(request);
    next_.reset();
    while (receive() == GST_RTSP_MESSAGE_DATA) {
    }
    GstRTSPStatusCode code{};
    gst_rtsp_message_parse_response(message_, &code, nullptr, nullptr);
    gchar* range = nullptr;
    gst_rtsp_message_get_header(message_, GST_RTSP_HDR_RANGE, &range, 0);
    return std::to_string(code) + " " + (range != nullptr ? range : "");
  }

  // Receives this many packets of video, of which none is missing since the last request.
  void receiveVideo(int packets) {
    while (packets > 0) {
      ASSERT_EQ(receive(), GST_RTSP_MESSAGE_DATA);
      guint8 channel = 0;
      gst_rtsp_message_parse_data(message_, &channel);
      if (channel != 0) {
        continue;
      }
      guint8* packet = nullptr;
      guint size = 0;
      gst_rtsp_message_get_body(message_, &packet, &size);
      const guint16 number = GST_READ_UINT16_BE(packet + 2);
      EXPECT_EQ(number, next_.value_or(number));
      next_ = static_cast<guint16>(number + 1);
      --packets;
    }
  }

 private:
  static constexpr gint64 kTimeout = 10'000'000;

  GstRTSPMsgType receive() {
    return gst_rtsp_connection_receive_usec(connection_, message_, kTimeout) == GST_RTSP_OK
               ? gst_rtsp_message_get_type(message_)
               : GST_RTSP_MESSAGE_INVALID;
  }

  GstRTSPConnection* connection_ = nullptr;
  GstRTSPMessage* message_ = nullptr;
  std::optional<guint16> next_;
  const std::string url_;
};

// Beside one who watches. The third stream has no packets at all, and the first client does not
// take those of the second.
TEST(ServeRtspRanges, AreAllNowAndAnEmptyTrackHoldsNobodyUp) {
  Server server("rtsp", {"--board", "imx", "--klv", "--audio-silence", "--fallback", "disabled"});
  std::optional<RawClient> videoOnly(std::in_place, server.url(), 1);
  EXPECT_EQ(videoOnly->request(GST_RTSP_PLAY), "200 npt=now-");
  videoOnly->receiveVideo(10);
  RawClient watcher(server.url());
  RawClient seeker(server.url());
  videoOnly.reset();
  EXPECT_EQ(watcher.request(GST_RTSP_PLAY), "200 npt=now-");
  for (const char* const range : {"npt=now-", "npt=0-", "npt=5-7", "npt=3600-", "npt=-5",
                                  "clock=20200101T000000Z-", "smpte=0:00:10-"}) {
    EXPECT_EQ(seeker.request(GST_RTSP_PLAY,
                             {{GST_RTSP_HDR_RANGE, range}, {GST_RTSP_HDR_SEEK_STYLE, "RAP"}}),
              "200 npt=now-")
        << range;
    seeker.receiveVideo(10);
    watcher.receiveVideo(10);
    EXPECT_EQ(seeker.request(GST_RTSP_PAUSE), "200 ") << range;
  }
  EXPECT_EQ(server.stop().find("CRITICAL"), std::string::npos);
}

// Status line of one request over a connection of its own.
std::string statusOf(const std::string& url, const std::string& method,
                     const std::string& header = "X: y") {
  const std::string request = method + " " + url + " RTSP/1.0\r\nCSeq: 1\r\n" + header + "\r\n\r\n";
  g_autoptr(GSocketClient) client = g_socket_client_new();
  g_socket_client_set_timeout(client, 60);
  g_autoptr(GSocketConnection) connection =
      g_socket_client_connect_to_uri(client, url.c_str(), 0, nullptr, nullptr);
  if (connection == nullptr) {
    return "no connection";
  }
  g_output_stream_write_all(g_io_stream_get_output_stream(G_IO_STREAM(connection)), request.data(),
                            request.size(), nullptr, nullptr, nullptr);
  char answer[64] = {};
  g_input_stream_read(g_io_stream_get_input_stream(G_IO_STREAM(connection)), answer,
                      sizeof(answer) - 1, nullptr, nullptr);
  const std::string text = answer;
  return text.substr(0, text.find('\r'));
}

// Each client finds the stream of the one before on its way to its end.
TEST(ServeRtspOnce, DescribesWhileTheStreamEnds) {
  Server server("rtsp", {"--board", "imx"});
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(statusOf(server.url(), "DESCRIBE"), "RTSP/1.0 200 OK");
  }
  EXPECT_EQ(
      statusOf(server.url() + "/stream=0", "SETUP", "Transport: RTP/AVP/TCP;unicast;of-no-meaning"),
      "RTSP/1.0 200 OK");
  EXPECT_EQ(server.stop().find("of-no-meaning"), std::string::npos);
}

// ALSA's null device has sound at once, whatever the time.
TEST(ServeRtspOnce, AnswersBesideASoundDeviceThatIsAheadOfTheClock) {
  Server server("rtsp", {"--board", "imx", "--mic", "alsa:null"});
  RawClient watcher(server.url(), 2);
  ASSERT_EQ(watcher.request(GST_RTSP_PLAY), "200 npt=now-");
  watcher.receiveVideo(10);
  ASSERT_EQ(statusOf(server.url(), "DESCRIBE"), "RTSP/1.0 200 OK");
  EXPECT_NE(server.stop().find("the microphone is ahead of the clock"), std::string::npos);
}

// SETUP waits for the first picture, longer than a client may stay without a session, and the
// server handles no other request meanwhile.
TEST(ServeRtspOnce, AnswersWhenAnEncoderIsSlowToBegin) {
  setenv("SIMULATED_BOARD_FAULTS", "vpuenc_h264=slow:17", 1);
  const Server server("rtsp", {"--board", "imx", "--fps", "1"});
  unsetenv("SIMULATED_BOARD_FAULTS");
  const auto setUp = [&server] {
    return statusOf(server.url() + "/stream=0", "SETUP", "Transport: RTP/AVP/TCP;unicast");
  };
  auto other = std::async(std::launch::async, setUp);
  EXPECT_EQ(setUp(), "RTSP/1.0 200 OK");
  EXPECT_EQ(other.get(), "RTSP/1.0 200 OK");
}

}  // namespace
