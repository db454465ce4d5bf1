// Recordings as others see them: scripts/judge takes them apart with ffprobe.

#include <gio/gunixsocketaddress.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>

#include "Record.h"
#include "Timestamps.h"

namespace {

namespace fs = std::filesystem;

TEST_F(Record, WritesWholeSegmentsOnBothBoards) {
  const std::string telemetry = folder_ / "telemetry.jsonl";
  // Across the date line and north, with values that come, go, grow too large and get old.
  std::ofstream(telemetry)
      << R"({"time": 100, "sensor_lat_deg": 47, "sensor_lon_deg": 179.99, "sensor_alt_m": 1000.5, )"
         R"("yaw_deg": 350, "pitch_deg": 15, "roll_deg": -3, "hfov_deg": 30, "nav_sat_count": 7})"
         "\n"
         R"({"time": 100.77, "sensor_lat_deg": 47.01, "sensor_lon_deg": -179.99, "yaw_deg": 20, )"
         R"("pitch_deg": 25, "hfov_deg": null, "azimuth_rate_dps": -12.5, "camera_name": "bow"})"
         "\n"
         R"({"time": 101.9, "sensor_alt_m": 20000, "yaw_deg": 185, "pan_deg": -10, "tilt_deg": 20, )"
         R"("measured_slant_range_m": 1234.5, "velocity_down_mps": 3, "laser_range_enabled": true})"
         "\n";
  const std::pair<const char*, const char*> rows[] = {{"nvidia", "h264"}, {"imx", "h265"}};
  for (const auto& [board, codec] : rows) {
    const Result result =
        run(command({"--board", board, "--codec", codec, "--klv", "--audio-silence",
                     "--segment-seconds", "2", "--duration", "5", "--telemetry", telemetry},
                    board));
    const Result verdict =
        judge(result, {"--segment-seconds", "2", "--seconds", "5", "--telemetry", telemetry}, codec,
              board);
    EXPECT_EQ(verdict.exitCode, 0) << board << verdict.out << verdict.err;
    // Frames dropped on a busy machine delay the key frames.
    static const std::regex kSummary(
        "(.*\n)*recorded (150 frames, 0 dropped, 3|\\d+ frames, [1-9].*) segm.*\n");
    EXPECT_TRUE(std::regex_match(result.out, kSummary)) << result.out;
  }
}

// Sound with four dropouts, recorded with and without fallback in parallel.
TEST_F(Record, LongTrackHasNoGapAndKeepsEveryPacket) {
  const std::string sound = makeSound(21, 1, "noise.ogg");
  std::vector<std::string> options = {
      "--board", "nvidia", "--klv", "--audio", sound, "--duration", "20", "--segment-seconds", "7"};
  std::vector<std::string> judged = {"--audio", sound, "--seconds", "20", "--segment-seconds", "7"};
  for (const char* const dropout : {"2-2.05", "4-4.3", "6-9", "13-14.5"}) {
    options.insert(options.end(), {"--drop", dropout});
    judged.insert(judged.end(), {"--dropout", dropout});
  }
  Program filled(command(options));
  options.insert(options.end(), {"--fallback", "disabled"});
  const Result holed = judge(run(command(options, "holed")), judged, "h264", "holed");
  const Result verdict = judge(filled.wait(), judged);
  EXPECT_EQ(verdict.exitCode, 0) << verdict.out << verdict.err;

  const std::regex gap("audio breaks off for ");
  EXPECT_EQ(std::distance(std::sregex_iterator(holed.out.begin(), holed.out.end(), gap), {}), 4)
      << holed.out;
}

// Two seconds a frame: more than the queues of the tracks hold.
TEST_F(Record, KeepsEveryPacketBesideAnEncoderThatIsTooSlow) {
  const std::string sound = makeSound(6, 1, "noise.ogg");
  std::vector<std::string> slow =
      command({"--board", "imx", "--klv", "--audio", sound, "--duration", "5", "--fps", "5"});
  slow.insert(slow.begin(),
              {"env", "SIMULATED_BOARD_FAULTS=vpuenc_h264=slow:10", "taskset", "-c", "0"});
  const Result result = run(slow);
  EXPECT_EQ(result.exitCode, 9) << result.err;
  const Result verdict =
      judge(result, {"--audio", sound, "--seconds", "5", "--segment-seconds", "60", "--fps", "5"});
  EXPECT_EQ(verdict.exitCode, 0) << verdict.out << verdict.err;
}

TEST_F(Record, FillsWhatIsLostAtRandomAndAfterTheFile) {
  const std::string sound = makeSound(3, 1, "noise.mka");
  const Result verdict =
      judge(run(command({"--board", "imx", "--klv", "--audio", sound, "--loss", "20", "--seed", "7",
                         "--duration", "4", "--fallback", "noise", "--watchdog", "100"})),
            {"--audio", sound, "--seconds", "4", "--segment-seconds", "60"});
  std::smatch lost;  // of 150 packets, and nothing else that is wrong
  ASSERT_TRUE(std::regex_search(
      verdict.out, lost, std::regex("\nFAULT: - (\\d+) audio packets missing, .*\n1 faults")))
      << verdict.out << verdict.err;
  EXPECT_GE(std::stoi(lost[1]), 10);
  EXPECT_LE(std::stoi(lost[1]), 50);
}

// A tone of -5 dB; fallback frames are silent.
TEST_F(Record, KeepsWhatTheMicrophoneHears) {
  const Result result =
      run(command({"--board", "imx", "--klv", "--mic", "test", "--duration", "2"}));
  const Result verdict = judge(result, {"--seconds", "2", "--segment-seconds", "60"});
  EXPECT_EQ(verdict.exitCode, 0) << verdict.out << verdict.err;
  const std::string hear =
      "ffmpeg -i " + output().string() + "/*.ts -af volumedetect -f null - 2>&1";
  std::smatch volume;
  const std::string heard = run({"sh", "-c", hear}).out;
  ASSERT_TRUE(std::regex_search(heard, volume, std::regex("mean_volume: (-[0-9.]+)"))) << heard;
  EXPECT_GT(std::stod(volume[1]), -20);
}

TEST_F(Record, EndsWithTheFileWithoutLooping) {
  const Result result = run(command({"--board", "nvidia", "--no-loop", "--key-distance", "10",
                                     "--rate-control", "variable", "--preset", "2"}));
  EXPECT_TRUE(hasRecorded(result)) << result.err;
  int recorded = 0;
  int dropped = 0;
  std::sscanf(result.out.c_str(), "recorded %d frames, %d dropped", &recorded, &dropped);
  EXPECT_EQ(recorded + dropped, 60) << result.out;
  const std::string keys =
      "ffprobe -v error -select_streams v -skip_frame nokey -show_entries "
      "frame=pts -of default " +
      filesIn(output()).front().string() + " | grep -c pts=";
  EXPECT_EQ(std::stoi(run({"sh", "-c", keys}).out), (recorded + 9) / 10);
}

TEST_F(Record, RefusesInOneLineWhatCannotWork) {
  const std::string text = folder_ / "notes.txt";
  std::ofstream(text) << "no video here";
  const std::string stereo = makeSound(1, 2, "stereo.ogg");
  const std::string out = output().string();
  using Arguments = std::vector<std::string>;
  const std::tuple<Arguments, int, const char*> rows[] = {
      {{clip_, "-o", out, "--board", ""}, 3, "no hardware video platform"},
      {{clip_, "-o", out, "--board", "toaster"}, 2, "cannot simulate board \"toaster\""},
      {{clip_, "-o", out, "--codec", "vp9"}, 2, "--codec: vp9 not in {h264,h265}"},
      {{clip_, "-o", out, "--codec", "av1"}, 2, "--codec: av1 not in {h264,h265}"},
      {{clip_, "-o", out, "--board", "nvv4l2h265enc,nvvidconv"}, 4, "h264; usable: h265"},
      {{"/nowhere.mp4", "-o", out}, 5, "does not exist: /nowhere.mp4"},
      {{clip_, "-o", text}, 6, "output folder "},
      {{clip_, "-o", out, "--preset", "1"}, 2, "--preset has no effect on dmabuf-nv12-vpu for rec"},
      {{clip_, "-o", out, "--rate-control", "constant"}, 2, "--rate-control has no effect"},
      {{clip_, "-o", out, "--key-distance", "0"}, 2, "--key-distance: Value 0 not in"},
      {{clip_, "-o", out, "--keep-hours", "nan"}, 2, "--keep-hours: nan is no number"},
      {{clip_, "-o", out, "--on-segment", "nowhere -x"}, 2, "--on-segment: no program nowhere"},
      {{clip_, "-o", out, "--on-segment", "a 'b"}, 2, "--on-segment: Text ended before matching"},
      {{clip_, "-o", out, "--audio", stereo}, 5, "this is 2 channels at 48000 Hz"},
      {{clip_, "-o", out, "--audio", clip_}, 5, "no Opus track"},
      {{clip_, "-o", out, "--audio", "/nowhere.ogg"}, 5, "/nowhere.ogg: No such file"},
      {{clip_, "-o", out, "--audio", clip_, "--drop", "3-2"},
       2,
       "a dropout is START-END in seconds, not 3-2"},
      {{clip_, "-o", out, "--audio", clip_, "--drop", "nan-1"}, 2, "not nan-1"},
      {{clip_, "-o", out, "--audio", clip_, "--drop", "1-1e10"}, 2, "not 1-1e10"},
      {{clip_, "-o", out, "--audio", clip_, "--loss", "nan"}, 2, "--loss: nan is no number"},
      {{clip_, "-o", out, "--drop", "3-4"}, 2, "--drop requires --audio"},
      {{clip_, "-o", out, "--mic", "jack"}, 2, "alsa:DEVICE, pulse:NAME or test, not jack"},
      {{clip_, "-o", out, "--mic", "test", "--audio", clip_}, 2, "--audio excludes --mic"},
      {{clip_, "-o", out, "--duration", "nan"}, 2, "--duration: nan is no number"},
      {{clip_, "-o", out, "--duration", "inf"}, 2, "--duration: Value inf not in"},
      {{clip_, "-o", out, "--fps", "0"}, 2, "--fps: Value 0 not in"},
  };
  static const std::regex kOneLine(".*\n(Run .*--help for more information.\n)?");
  for (const auto& [arguments, exitCode, error] : rows) {
    Arguments command = station({"record"}, arguments);
    if (std::find(command.begin(), command.end(), "--board") == command.end()) {
      command.insert(command.end(), {"--board", "imx"});
    }
    command.insert(command.begin(), {"timeout", "60"});  // what is not refused records
    const Result result = run(command);
    EXPECT_EQ(result.exitCode, exitCode) << error;
    EXPECT_NE(result.err.find(error), std::string::npos) << result.err;
    EXPECT_TRUE(std::regex_match(result.err, kOneLine)) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_FALSE(fs::exists(output()));
}

// While somebody watches over RTSP and HTTP; the same camera is in all of them. As a service: with
// a file of options, and systemd told that it has started.
TEST_F(Record, IsOneOfSeveralOutputs) {
  const std::string config = folder_ / "camera.toml";
  const Result options =
      run(station({"run", clip_, "--board", "imx", "--record", output(), "--klv", "--telemetry",
                   "demo", "--audio-silence", "--rtsp", "--rtsp-port", "0", "--http", "--http-port",
                   "0", "--print-config"}));
  std::ofstream(config) << options.out;
  g_autoptr(GSocket) systemd = g_socket_new(G_SOCKET_FAMILY_UNIX, G_SOCKET_TYPE_DATAGRAM,
                                            G_SOCKET_PROTOCOL_DEFAULT, nullptr);
  const std::string place = folder_ / "notify";
  g_autoptr(GSocketAddress) address = g_unix_socket_address_new(place.c_str());
  ASSERT_TRUE(g_socket_bind(systemd, address, FALSE, nullptr)) << options.err;
  setenv("NOTIFY_SOCKET", place.c_str(), 1);
  Program program(station({"run", "--config", config, "--quiet"}));
  unsetenv("NOTIFY_SOCKET");
  char notification[64] = {};
  g_socket_set_timeout(systemd, 60);
  g_socket_receive(systemd, notification, sizeof(notification) - 1, nullptr, nullptr);
  EXPECT_STREQ(notification, "READY=1") << options.out;
  const auto nextUrl = [&program] {
    std::smatch found;
    const std::string line = program.readLine();
    return std::regex_search(line, found, std::regex("\\w+://\\S+")) ? found.str() : line;
  };
  const std::string rtsp = nextUrl();
  const std::string http = nextUrl();
  std::vector<std::int64_t> times =
      timestampsIn("rtspsrc protocols=tcp location=" + rtsp + " ! rtph264depay", 15);
  const std::string video = folder_ / "video.h264";
  run({"ffmpeg", "-nostdin", "-v", "error", "-probesize", "32768", "-f", "h264", "-i",
       http + "stream.h264", "-frames:v", "15", "-c", "copy", "-f", "h264", video});
  for (const std::int64_t time : timestampsIn("filesrc location=" + video, 15)) {
    times.push_back(time);
  }
  EXPECT_EQ(times.size(), 30U);
  const std::string host = rtsp.substr(7, rtsp.rfind('/') - 7);
  const Result theft = run({"bash", "-c",
                            "exec 3<>/dev/tcp/${0/:/\\/}; printf 'OPTIONS * RTSP/1.0\r\nCSeq: 1\r\n"
                            "Session: 1-guessed\r\n\r\n' >&3; cat <&3",
                            host});
  EXPECT_EQ(theft.out.rfind("RTSP/1.0 454 ", 0), 0U) << theft.out << theft.err;
  const Result status = run({"curl", "-sSf", http + "status.json"});
  EXPECT_NE(status.out.find("\"record\""), std::string::npos) << status.out << status.err;
  EXPECT_EQ(nlohmann::json::parse(status.out)["rtsp"]["refused"]["session"], 1) << status.out;
  EXPECT_EQ(run({"curl", "-sSf", "-o", folder_ / "snapshot.jpg", http + "snapshot.jpg"}).err, "");
  EXPECT_EQ(decodedFrames(folder_ / "snapshot.jpg"), 1);
  Program reader(station({"klv", rtsp}));
  const std::string set = reader.readLine();
  reader.signal(SIGINT);
  program.signal(SIGINT);
  const Result verdict = judge(program.wait(), {"--segment-seconds", "60", "--telemetry", "demo"});
  const std::string sets = run(station({"klv", filesIn(output()).front()})).out;
  EXPECT_NE(("\n" + sets).find("\n" + set + "\n"), std::string::npos) << set << "\n" << sets;
  for (const std::int64_t time : times) {
    EXPECT_NE(sets.find(":" + std::to_string(time) + ","), std::string::npos) << time;
  }
  EXPECT_EQ(verdict.exitCode, 0) << verdict.out << verdict.err;
}

}  // namespace
