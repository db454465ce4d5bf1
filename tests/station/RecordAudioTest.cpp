#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Program.h"
#include "support/Command.h"
#include "support/TempFolder.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

constexpr int kTicks = 90000;  // a second in a transport stream
constexpr int kFrameTicks = kTicks / 50;

struct Packet {
  long begin;  // ticks
  long end;
  std::string hash;
};

std::vector<Packet> packetsOf(const fs::path& file, const char* stream) {
  const Result result = run({"ffprobe", "-v", "error", "-select_streams", stream, "-show_packets",
                             "-show_data_hash", "md5", "-of", "json", file.string()});
  const json probe = json::parse(result.out);
  std::vector<Packet> packets;
  for (const json& packet : probe["packets"]) {
    const long pts = packet["pts"];
    packets.push_back({pts, pts + packet.value("duration", 0L), packet["data_hash"]});
  }
  return packets;
}

// The packets of all segments, as one track.
std::vector<Packet> trackOf(const fs::path& folder, const char* stream) {
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
    files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  std::vector<Packet> track;
  for (const fs::path& file : files) {
    const std::vector<Packet> packets = packetsOf(file, stream);
    track.insert(track.end(), packets.begin(), packets.end());
  }
  return track;
}

// Places where a packet does not start where the one before ended, to within a tick.
std::vector<std::size_t> breaksOf(const std::vector<Packet>& track) {
  std::vector<std::size_t> breaks;
  for (std::size_t i = 1; i < track.size(); ++i) {
    if (std::abs(track[i].begin - track[i - 1].end) > 1) {
      breaks.push_back(i);
    }
  }
  return breaks;
}

class RecordAudio : public testing::Test {
 protected:
  RecordAudio() {
    runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                "testsrc2=size=320x180:rate=15:duration=2", "-c:v", "libx264", clip_});
  }

  // Noise, so that no two packets are alike.
  std::string makeSound(int seconds, int channels, const char* name) const {
    const std::string file = folder_ / name;
    runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                "anoisesrc=sample_rate=48000:duration=" + std::to_string(seconds), "-c:a",
                "libopus", "-ac", std::to_string(channels), "-b:a", "48k", file});
    return file;
  }

  std::vector<std::string> command(const char* output, std::vector<std::string> more) const {
    std::vector<std::string> result =
        station({"record", clip_, "-o", folder_ / output, "--board", "nvidia", "--width", "320",
                 "--height", "180", "--fps", "15", "--bitrate", "500000"});
    result.insert(result.end(), more.begin(), more.end());
    return result;
  }

  TempFolder folder_;
  const std::string clip_ = folder_ / "clip.mkv";
};

// Seconds.
struct Dropout {
  double begin;
  double end;
};

bool isReceived(std::size_t packet, const std::vector<Dropout>& dropouts) {
  const double time = 0.02 * static_cast<double>(packet);
  return std::none_of(dropouts.begin(), dropouts.end(), [time](const Dropout& dropout) {
    return time > dropout.begin - 1e-6 && time < dropout.end - 1e-6;
  });
}

// A minute of sound with ten dropouts, recorded with and without fallback at the same time.
TEST_F(RecordAudio, LongTrackHasNoGapAndKeepsEveryPacket) {
  const std::vector<Dropout> dropouts = {{2, 2.05}, {5, 5.1}, {9, 9.3},   {14, 14.06}, {19, 20},
                                         {25, 28},  {33, 35}, {41, 41.5}, {48, 48.2},  {55, 56.5}};
  const std::string sound = makeSound(64, 1, "noise.ogg");
  std::vector<std::string> options = {"--audio",           sound, "--duration", "62",
                                      "--segment-seconds", "7"};
  for (const Dropout& dropout : dropouts) {
    std::ostringstream text;
    text << dropout.begin << '-' << dropout.end;
    options.insert(options.end(), {"--drop", text.str()});
  }
  Program filled(command("filled", options));
  options.insert(options.end(), {"--fallback", "disabled"});
  const Result holed = run(command("holed", options));
  const Result result = filled.wait();
  ASSERT_EQ(result.exitCode, 0) << result.err;
  ASSERT_EQ(holed.exitCode, 0) << holed.err;

  const std::vector<Packet> sent = packetsOf(sound, "a");
  const std::vector<Packet> track = trackOf(folder_ / "filled", "a");
  EXPECT_EQ(breaksOf(track), std::vector<std::size_t>());
  ASSERT_EQ(track.size(), 62U * 50);
  for (std::size_t i = 0; i < track.size(); ++i) {
    EXPECT_EQ(track[i].end - track[i].begin, kFrameTicks);
    EXPECT_EQ(track[i].hash == sent[i].hash, isReceived(i, dropouts)) << "packet " << i;
  }
  const std::vector<Packet> video = trackOf(folder_ / "filled", "v");
  EXPECT_LE(std::abs(video.front().begin - track.front().begin), kFrameTicks);
  EXPECT_LE(std::abs(video.back().begin + kTicks / 15 - track.back().end), kFrameTicks);

  EXPECT_EQ(breaksOf(trackOf(folder_ / "holed", "a")).size(), dropouts.size());
}

TEST_F(RecordAudio, FillsWhatIsLostAtRandomAndAfterTheFile) {
  const std::string sound = makeSound(3, 1, "noise.mka");
  const Result result =
      run(command("out", {"--audio", sound, "--loss", "20", "--seed", "7", "--duration", "4",
                          "--fallback", "noise", "--watchdog", "100"}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const std::vector<Packet> track = trackOf(folder_ / "out", "a");
  EXPECT_EQ(breaksOf(track), std::vector<std::size_t>());
  EXPECT_EQ(track.size(), 200U);
  const std::vector<Packet> sent = packetsOf(sound, "a");
  std::size_t kept = 0;
  for (std::size_t i = 0; i < 150; ++i) {
    kept += track[i].hash == sent[i].hash ? 1U : 0U;
  }
  EXPECT_GE(kept, 100U);
  EXPECT_LE(kept, 140U);
}

TEST_F(RecordAudio, SilenceAloneIsATrackToo) {
  const Result result = run(command("out", {"--audio-silence", "--duration", "3"}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  const std::vector<Packet> track = trackOf(folder_ / "out", "a");
  EXPECT_EQ(track.size(), 150U);
  EXPECT_EQ(breaksOf(track), std::vector<std::size_t>());
}

TEST_F(RecordAudio, RefusesSoundThatTheRecorderDoesNotTake) {
  struct Row {
    std::vector<std::string> options;
    int exitCode;
    const char* error;
  };
  const Row rows[] = {
      {{"--audio", makeSound(1, 2, "stereo.ogg")}, 5, "this is 2 channels at 48000 Hz"},
      {{"--audio", clip_}, 5, "no Opus track"},
      {{"--audio", "/nowhere.ogg"}, 5, "/nowhere.ogg"},
      {{"--audio", clip_, "--drop", "3-2"}, 2, "a dropout is START-END in seconds, not 3-2"},
      {{"--audio", clip_, "--drop", "3-4s"}, 2, "not 3-4s"},
      {{"--drop", "3-4"}, 2, "--drop requires --audio"},
      {{"--audio-silence", "--fallback", "music"}, 2, "music"},
  };
  for (const Row& row : rows) {
    const Result result = run(command("out", row.options));
    EXPECT_EQ(result.exitCode, row.exitCode) << row.error;
    EXPECT_NE(result.err.find(row.error), std::string::npos) << result.err;
  }
  EXPECT_FALSE(fs::exists(folder_ / "out"));
}

}  // namespace
