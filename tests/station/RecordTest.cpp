#include <gtest/gtest.h>
#include <sys/mount.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "Program.h"
#include "support/Command.h"
#include "support/TempFolder.h"

namespace fs = std::filesystem;
using nlohmann::json;

namespace {

class Record : public testing::Test {
 protected:
  Record() {
    runCommand({"ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                "testsrc2=size=640x360:rate=30:duration=2", "-c:v", "libx264", "-preset",
                "ultrafast", clip_});
  }

  std::vector<std::string> recordCommand(const std::vector<std::string>& more) const {
    std::vector<std::string> command =
        station({"record", clip_, "-o", output().string(), "--width", "640", "--height", "360"});
    command.insert(command.end(), more.begin(), more.end());
    return command;
  }

  fs::path output() const { return folder_.path() / "out"; }

  std::vector<fs::path> segments(const fs::path& folder) const {
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
      files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    return files;
  }

  // Waits until the recording has begun its `count`-th segment.
  bool awaitSegments(std::size_t count) const {
    for (int i = 0; i < 600; ++i) {
      if (fs::exists(output()) && segments(output()).size() >= count) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }

  TempFolder folder_;
  const std::string clip_ = folder_ / "clip.mkv";
};

// Frames of the video stream that ffmpeg decodes; fails the test on any complaint of it.
unsigned int decodedFrames(const fs::path& file) {
  const Result result =
      run({"ffprobe", "-v", "error", "-select_streams", "v", "-count_frames", "-show_entries",
           "stream=nb_read_frames", "-of", "json", file.string()});
  EXPECT_EQ(result.exitCode, 0) << file;
  EXPECT_EQ(result.err, "") << file;
  const json streams = json::parse(result.out)["streams"];
  return streams.empty()
             ? 0
             : static_cast<unsigned int>(std::stoul(streams[0].value("nb_read_frames", "0")));
}

json probeStreams(const fs::path& file) {
  return json::parse(run({"ffprobe", "-v", "error", "-count_packets", "-show_streams", "-of",
                          "json", file.string()})
                         .out)["streams"];
}

// What the summary line says.
struct Summary {
  unsigned int frames;
  unsigned int dropped;
  unsigned int segments;
};

Summary summaryOf(const Result& result) {
  static const std::regex kLine("recorded (\\d+) frames, (\\d+) dropped, (\\d+) segments, .*\n");
  std::smatch match;
  if (!std::regex_match(result.out, match, kLine)) {
    ADD_FAILURE() << result.out << result.err;
    return {};
  }
  const auto number = [&match](std::size_t i) {
    return static_cast<unsigned int>(std::stoul(match[i]));
  };
  return {number(1), number(2), number(3)};
}

TEST_F(Record, WritesPlayableSegmentsOnBothBoards) {
  struct Row {
    const char* board;
    const char* codec;
    const char* ffprobeName;
  };
  for (const Row& row : {Row{"nvidia", "h264", "h264"}, Row{"imx", "hevc", "hevc"}}) {
    SCOPED_TRACE(row.board);
    fs::remove_all(output());
    const Result result = run(recordCommand({"--board", row.board, "--codec", row.codec, "--klv",
                                             "--segment-seconds", "2", "--duration", "5"}));
    ASSERT_EQ(result.exitCode, 0) << result.err;
    const Summary summary = summaryOf(result);
    EXPECT_EQ(summary.frames, 150U);
    const std::vector<fs::path> files = segments(output());
    EXPECT_EQ(files.size(), summary.segments);
    // Frames that a busy machine drops make the key frames come later.
    if (summary.dropped == 0) {
      EXPECT_EQ(files.size(), 3U);
    }

    unsigned int frames = 0;
    unsigned int klvPackets = 0;
    for (const fs::path& file : files) {
      static const std::regex kName("\\d{8}T\\d{6}\\.\\d{3}Z\\.ts");
      EXPECT_TRUE(std::regex_match(file.filename().string(), kName)) << file;
      frames += decodedFrames(file);
      for (const json& stream : probeStreams(file)) {
        if (stream["codec_type"] == "video") {
          EXPECT_EQ(stream["codec_name"], row.ffprobeName);
          EXPECT_EQ(stream["width"], 640);
        } else {
          EXPECT_EQ(stream["codec_name"], "klv");
          klvPackets +=
              static_cast<unsigned int>(std::stoul(stream["nb_read_packets"].get<std::string>()));
        }
      }
    }
    EXPECT_EQ(frames + summary.dropped, summary.frames);
    EXPECT_EQ(klvPackets, summary.frames);
  }
}

TEST_F(Record, EndsWithTheFileWithoutLooping) {
  const Result result = run(recordCommand({"--board", "nvidia", "--no-loop"}));
  ASSERT_EQ(result.exitCode, 0) << result.err;
  EXPECT_EQ(summaryOf(result).frames, 60U);
}

TEST_F(Record, RefusesInOneLineWhatCannotWork) {
  const std::string text = folder_ / "notes.txt";
  std::ofstream(text) << "no video here";
  struct Row {
    std::vector<std::string> command;
    int exitCode;
    const char* error;
  };
  const std::string out = output().string();
  const Row rows[] = {
      {{"record", clip_, "-o", out}, 3, "no hardware video platform"},
      {{"record", clip_, "-o", out, "--board", "toaster"}, 2, "cannot simulate board \"toaster\""},
      {{"record", clip_, "-o", out, "--board", "imx", "--codec", "vp9"}, 2, "unknown codec: vp9"},
      {{"record", clip_, "-o", out, "--board", "imx", "--codec", "av1"}, 4, "av1"},
      {{"record", clip_, "-o", out, "--board", "nvidia", "--codec", "mjpeg"}, 4, "mjpeg"},
      {{"record", clip_, "-o", out, "--board", "nvv4l2h265enc,nvvidconv"}, 4, "h264"},
      {{"record", "/nowhere.mp4", "-o", out, "--board", "imx"}, 5, "does not exist: /nowhere.mp4"},
      {{"record", text, "-o", out, "--board", "imx"}, 5, "source failed: "},
      {{"record", folder_.path().string(), "-o", out, "--board", "imx"}, 5, "source failed: "},
      {{"record", clip_, "-o", "/proc/nowhere", "--board", "imx"},
       6,
       "output folder /proc/nowhere"},
      {{"record", clip_, "-o", text, "--board", "imx"}, 6, "output folder "},
  };
  for (const Row& row : rows) {
    const Result result = run(station(row.command));
    EXPECT_EQ(result.exitCode, row.exitCode) << row.error;
    EXPECT_NE(result.err.find(row.error), std::string::npos) << result.err;
    EXPECT_EQ(std::count(result.err.begin(), result.err.end(), '\n'), 1) << result.err;
    EXPECT_EQ(result.out, "");
  }
  EXPECT_FALSE(fs::exists(output()));
}

TEST_F(Record, EndsTheLastSegmentOnCtrlC) {
  Program program(recordCommand({"--board", "nvidia", "--segment-seconds", "1"}));
  ASSERT_TRUE(awaitSegments(2));
  program.signal(SIGINT);
  const Result result = program.wait();
  EXPECT_EQ(result.exitCode, 0) << result.err;
  const Summary summary = summaryOf(result);
  unsigned int frames = 0;
  for (const fs::path& file : segments(output())) {
    frames += decodedFrames(file);
  }
  EXPECT_EQ(frames + summary.dropped, summary.frames);
}

TEST_F(Record, QuitsOnTheSecondCtrlC) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer hands signals on when a thread gets to it, or never";
#endif
  Program program(recordCommand({"--board", "nvidia"}));
  ASSERT_TRUE(awaitSegments(1));
  // Both are pending when the process goes on, so neither can be late.
  program.signal(SIGSTOP);
  program.signal(SIGINT);
  program.signal(SIGTERM);
  program.signal(SIGCONT);
  EXPECT_EQ(program.wait().exitCode, 130);
}

TEST_F(Record, KeepsWhatWasRecordedWhenTheSourceVanishes) {
  Program program(recordCommand({"--board", "imx", "--segment-seconds", "1"}));
  ASSERT_TRUE(awaitSegments(2));
  fs::remove(clip_);
  const Result result = program.wait();
  EXPECT_EQ(result.exitCode, 5);
  EXPECT_NE(result.err.find("media file does not exist: "), std::string::npos) << result.err;
  unsigned int frames = 0;
  for (const fs::path& file : segments(output())) {
    frames += decodedFrames(file);
  }
  EXPECT_GE(frames, 25U);
}

TEST_F(Record, KeepsWhatWasRecordedWhenTheFolderVanishes) {
  Program program(recordCommand({"--board", "nvidia", "--segment-seconds", "1"}));
  ASSERT_TRUE(awaitSegments(2));
  const fs::path moved = folder_ / "moved";
  fs::rename(output(), moved);
  const Result result = program.wait();
  EXPECT_EQ(result.exitCode, 6) << result.err;
  for (const fs::path& file : segments(moved)) {
    EXPECT_GE(decodedFrames(file), 20U) << file;
  }
}

// A file system of its own, of two mebibytes, while the object lives.
class SmallDisk {
 public:
  explicit SmallDisk(const fs::path& folder)
      : folder_(folder), mounted_(mount("none", folder.c_str(), "tmpfs", 0, "size=2m") == 0) {}
  ~SmallDisk() {
    if (mounted_) {
      umount(folder_.c_str());
    }
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool isMounted() const { return mounted_; }

 private:
  const fs::path folder_;
  const bool mounted_;
};

TEST_F(Record, SaysThatTheDiskIsFull) {
  fs::create_directories(output());
  const SmallDisk disk(output());
  if (!disk.isMounted()) {
    GTEST_SKIP() << "a small file system can only be mounted as root: " << std::strerror(errno);
  }
  const Result result = run(recordCommand(
      {"--board", "nvidia", "--segment-seconds", "1", "--bitrate", "8000000", "--duration", "20"}));
  EXPECT_EQ(result.exitCode, 7) << result.err;
  EXPECT_NE(result.err.find("is full"), std::string::npos) << result.err;
  const std::vector<fs::path> files = segments(output());
  ASSERT_FALSE(files.empty());
  EXPECT_EQ(decodedFrames(files.front()), 30U);
}

}  // namespace
