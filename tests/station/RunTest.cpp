// What `run` does while it runs.

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include <sys/stat.h>

#include "Program.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;

std::string utcNow() {
  return run({"date", "-u", "+%Y%m%dT%H%M%S"}).out.substr(0, 15);
}

// Mean of the samples of an image file's luma.
int brightness(const std::string& image) {
  const Result mean = run({"sh", "-c",
                           "ffmpeg -v error -i \"$0\" -vf scale=1:1:flags=area -f rawvideo "
                           "-pix_fmt gray - | od -An -tu1",
                           image});
  return std::stoi("0" + mean.out.substr(mean.out.find_first_not_of(' ')));
}

std::set<fs::path> awaitIn(const std::string& folder, std::size_t count) {
  std::set<fs::path> files;
  for (int looks = 0; files.size() < count && looks < 300; ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    files = {fs::directory_iterator(folder), {}};
  }
  return files;
}

std::string openMicrophones(const Program& program) {
  return run({"sh", "-c", "grep -lx microphone:src /proc/" + program.id() + "/task/*/comm | wc -l"})
      .out;
}

// A file that vanishes, and is replaced by one of another size and frame rate. Recording and server
// hear one microphone.
TEST(Run, KeepsViewersOfALostCameraAndBeginsANewSegment) {
  const TempFolder folder;
  const std::string clip = folder / "clip.mkv";
  const std::string snapshot = folder / "snapshot.jpg";
  makeClip(clip, "320x180", 30, 30);
  makeClip(folder / "other.mkv", "176x144", 25, 25);
  Program program(station({"run", clip, "--board", "imx", "--record", folder / "out", "--http",
                           "--http-port", "0", "--mic", "test"}));
  const std::string line = program.readLine();
  const std::string url = line.substr(line.find("http"), line.find("/ ") - line.find("http"));
  program.awaitErrorLine("camera runs");
  Program viewer({"curl", "-sS", "-o", folder / "stream.mp4", url + "/stream.mp4"});
  fs::remove(clip);
  program.awaitErrorLine("camera lost: source failed: media file does not exist: " + clip +
                         "; waiting for it to come back");
  run({"curl", "-sSf", "-o", snapshot, url + "/snapshot.jpg"});
  EXPECT_LT(brightness(snapshot), 60);
  const auto frames = [&] {
    std::error_code missing;
    const std::uintmax_t size = fs::file_size(folder / "stream.mp4", missing);
    return missing ? 0 : size;
  };
  const std::uintmax_t seen = frames();
  const std::string before = utcNow();
  fs::rename(folder / "other.mkv", clip);
  program.awaitErrorLine("camera is back");
  const std::set<fs::path> segments = awaitIn(folder / "out", 2);
  run({"curl", "-sSf", "-o", snapshot, url + "/snapshot.jpg"});
  EXPECT_GT(brightness(snapshot), 70);
  const std::string after = utcNow();
  const std::string name = segments.rbegin()->filename();
  EXPECT_LE(before, name);
  EXPECT_LE(name.substr(0, 15), after);
  EXPECT_GT(frames(), seen);
  const std::string status = run({"curl", "-sSf", url + "/status.json"}).out;
  EXPECT_NE(status.find("\"losses\": 1\n"), std::string::npos) << status;
  EXPECT_EQ(openMicrophones(program), "1\n");
  // Prometheus takes each name once. Both tracks have figures.
  const std::string names =
      run({"sh", "-c", "curl -sSf " + url + "/metrics | sed -n 's/^# HELP //p' | cut -d' ' -f1"})
          .out;
  EXPECT_EQ(run({"sh", "-c", "printf %s \"$0\" | sort | uniq -d", names}).out, "");
  for (const char* const part : {"audio", "recorded_audio"}) {
    EXPECT_NE(names.find("station_" + std::string(part) + "_received"), std::string::npos) << names;
  }
  program.signal(SIGINT);
  const Result result = program.wait();
  EXPECT_EQ(result.exitCode, 9) << result.err;
  EXPECT_NE(result.out.find("camera losses: 1\n"), std::string::npos) << result.out;
  for (const fs::path& segment : segments) {
    EXPECT_EQ(run({"ffprobe", "-v", "error", "-count_frames", segment}).err, "");
  }
}

// A program that waits for `go`, up to a minute, and then says what it was called with.
std::string makeUpload(const TempFolder& folder, const std::string& go) {
  const std::string path = folder / "upload";
  std::ofstream(path) << "#!/bin/sh\nfor i in $(seq 300); do\n[ ! -e " << go
                      << " ] || exec echo uploaded $1\nsleep 0.2\ndone\n";
  fs::permissions(path, fs::perms::owner_all);
  return path;
}

// The recording changes, then the server. Options that do not work follow, for an output and for
// the camera, and then two recordings begin while the camera is lost. Nothing waits for the
// upload of the first segment. Without a recording, the microphone is closed. It ends while it
// reads that the camera changes.
TEST(Run, ReadsItsOptionsAgain) {
  const TempFolder folder;
  const std::string clip = folder / "clip.mkv";
  const std::string config = folder / "camera.toml";
  const std::string go = folder / "go";
  const std::string upload = makeUpload(folder, go);
  makeClip(clip, "320x180", 30, 60);
  const auto write = [&](const std::string& record, const std::string& path,
                         const char* source = "clip.mkv") {
    std::ofstream(config) << "source = \"" << folder / source << "\"\nboard = \"imx\"\nrecord = \""
                          << (record.empty() ? "" : folder / record) << "\"\non-segment = \""
                          << upload
                          << "\"\nmic = \"test\"\nrtsp = true\nrtsp-port = 0\nrtsp-path = \""
                          << path << "\"\n";
  };
  write("before", "/camera");
  Program program(station({"run", "--config", config}));
  const std::string line = program.readLine();
  const std::string url = line.substr(line.find("rtsp"), line.find("  ") - line.find("rtsp"));
  Program viewer({"ffprobe", "-v", "error", "-rtsp_transport", "tcp", "-allowed_media_types",
                  "video", "-read_intervals", "%+#90", "-show_entries", "packet=flags", "-of",
                  "csv=p=0", url});
  EXPECT_EQ(viewer.readLine().front(), 'K');
  write("never", "camera");
  program.signal(SIGHUP);
  program.awaitErrorLine(
      "the options stay as they were: --rtsp-path: the path has to begin with /");
  write("after", "/camera");
  program.signal(SIGHUP);
  program.awaitErrorLine("options read again");
  const Result stream = viewer.wait();
  EXPECT_EQ(stream.exitCode, 0);
  EXPECT_GE(std::count(stream.out.begin(), stream.out.end(), '\n'), 89) << stream.err;
  write("after", "/moved");
  program.signal(SIGHUP);
  program.awaitErrorLine("options read again");
  const std::string refusal = "cannot carry out the new options, the old ones apply again: ";
  write("clip.mkv/never", "/never");
  program.signal(SIGHUP);
  program.awaitErrorLine(refusal + "cannot write to output folder " + (folder / "clip.mkv/never") +
                         ": Not a directory");
  awaitIn(folder / "after", 2);
  write("after", "/moved", "never.mkv");
  program.signal(SIGHUP);
  program.awaitErrorLine(refusal +
                         "source failed: media file does not exist: " + (folder / "never.mkv"));
  awaitIn(folder / "after", 3);
  fs::rename(clip, folder / "away.mkv");
  program.awaitErrorLine("camera lost: source failed: media file does not exist: " + clip +
                         "; waiting for it to come back");
  for (const char* const record : {"idle", "last"}) {
    write(record, "/moved");
    program.signal(SIGHUP);
    program.awaitErrorLine("options read again");
  }
  fs::rename(folder / "away.mkv", clip);
  awaitIn(folder / "last", 1);
  EXPECT_EQ(openMicrophones(program), "1\n");
  write("", "/moved");
  program.signal(SIGHUP);
  for (int looks = 0; openMicrophones(program) != "0\n" && looks < 100; ++looks) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  EXPECT_EQ(openMicrophones(program), "0\n");
  std::ofstream(go).flush();
  ASSERT_FALSE(HasFailure()) << "nobody may read any more";
  fs::remove(config);
  mkfifo(config.c_str(), S_IRUSR | S_IWUSR);
  program.signal(SIGHUP);
  {
    std::ofstream reading(config);
    program.signal(SIGTERM);
    reading << "source = \"" << clip
            << "\"\nboard = \"imx\"\nfps = 15\nhttp = true\nhttp-port = 0\n";
  }
  std::string last;
  for (std::string out = program.readLine(); !out.empty(); out = program.readLine()) {
    ASSERT_EQ(out.find("http"), std::string::npos) << "it goes on";
    last = out.find("rtsp") != std::string::npos ? out : last;
  }
  const Result result = program.wait();
  EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 9) << result.err;
  EXPECT_FALSE(fs::exists(folder / "never"));
  EXPECT_TRUE(fs::is_empty(folder / "idle"));
  EXPECT_NE(last.find("/moved "), std::string::npos) << last;
  for (const char* const name : {"before", "last"}) {
    const fs::path segment = *fs::directory_iterator(folder / name);
    EXPECT_EQ(awaitIn(folder / name, 1).size(), 1U);
    EXPECT_EQ(run({"ffprobe", "-v", "error", "-count_frames", segment}).err, "");
    EXPECT_NE(result.err.find("uploaded " + segment.string() + "\n"), std::string::npos)
        << result.err;
  }
}

}  // namespace
