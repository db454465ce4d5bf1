#include <gtest/gtest.h>

#include <sys/mount.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <tuple>

#include "Program.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;

// PSNR in dB of two pictures, the second one's middle; equal ones have infinitely much.
double psnr(const std::string& a, const std::string& b) {
  const Result result = run({"ffmpeg", "-v", "info", "-i", a, "-i", b, "-lavfi",
                             "[0]crop=64:64,format=gbrp[a];[1]crop=64:64,format=gbrp[b];[a][b]psnr",
                             "-f", "null", "-"});
  const std::size_t place = result.err.find("average:");
  return place == std::string::npos ? 0 : std::stod(result.err.substr(place + 8));
}

class Grab : public testing::Test {
 protected:
  void ffmpeg(const std::string& source, const std::vector<std::string>& more) const {
    std::vector<std::string> command = {"ffmpeg", "-v", "error", "-f", "lavfi", "-i", source};
    command.insert(command.end(), more.begin(), more.end());
    runCommand(command);
  }

  TempFolder folder_;
};

// Full-range colours come back as they are, also through a recording.
TEST_F(Grab, AStillImageKeepsItsSizeAndColours) {
  const std::string image = folder_ / "image.png";
  ffmpeg("color=0xc81e3c:size=129x99", {"-frames:v", "1", image});
  for (const char* const name : {"a.png", "a.jpg"}) {
    const Result result = run(station({"grab", image, "-o", folder_ / name}));
    EXPECT_EQ(result.out, folder_ / name + "  128 x 98\n") << result.err;
    EXPECT_GT(psnr(image, folder_ / name), 38) << name;
  }
  EXPECT_EQ(run(station({"grab", image, "-o", folder_ / "b.png", "--width", "64"})).exitCode, 2);
  run(station({"grab", image, "-o", folder_ / "a.nv12"}));
  EXPECT_EQ(fs::file_size(folder_ / "a.nv12"), 128U * 98 * 3 / 2);

  const Result recorded =
      run(station({"record", image, "-o", folder_ / "out", "--board", "imx", "--duration", "0.5"}));
  ASSERT_TRUE(hasRecorded(recorded)) << recorded.err;
  EXPECT_GT(psnr(image, fs::directory_iterator(folder_ / "out")->path()), 38);
}

// A playlist reads what it names, also inside of another format.
TEST_F(Grab, APlaylistIsRefusedUnlessAllowed) {
  ffmpeg("testsrc2=size=320x180:rate=30:duration=1",
         {"-f", "hls", "-hls_time", "1", folder_ / "list.m3u8"});
  ffmpeg("testsrc2=size=320x180:rate=30:duration=1", {"-f", "dash", folder_ / "list.mpd"});
  runCommand({"sh", "-c", "(printf 'ID3\\4\\0\\0\\0\\0\\0\\0'; cat \"$0\") >\"$1\"",
              folder_ / "list.m3u8", folder_ / "tagged.mp3"});
  for (const char* const name : {"list.m3u8", "list.mpd", "tagged.mp3"}) {
    const std::vector<std::string> command = {"grab", folder_ / name, "-o", folder_ / "a.png"};
    const Result refused = run(station(command));
    EXPECT_EQ(refused.exitCode, 5) << name << refused.err;
    EXPECT_EQ(run(station(command, {"--allow-playlists"})).exitCode, 0) << name;
  }
}

TEST_F(Grab, PicturesOfAFileAreNumbered) {
  const std::string clip = folder_ / "clip.mkv";
  makeClip(clip, "320x180", 30, 3);
  const std::vector<std::string> command = {"grab",    clip,  "-o",       folder_ / "a.png",
                                            "--width", "160", "--height", "90"};
  EXPECT_EQ(run(station(command, {"--count", "3"})).exitCode, 0);
  EXPECT_LT(psnr(folder_ / "a-0001.png", folder_ / "a-0003.png"), 60);
  const Result tooMany = run(station(command, {"--count", "4"}));
  EXPECT_EQ(tooMany.exitCode, 5);
  EXPECT_EQ(tooMany.err, "media-station: source has ended after 3 pictures: " + clip + "\n");
}

TEST_F(Grab, LeavesNothingOnAFullDisk) {
  const std::string image = folder_ / "image.png";
  ffmpeg("color=red:size=128x96", {"-frames:v", "1", image});
  const fs::path disk = folder_.path() / "disk";
  fs::create_directory(disk);
  if (mount("none", disk.c_str(), "tmpfs", 0, "size=12k") != 0) {
    GTEST_SKIP() << "a small file system can only be mounted as root: " << std::strerror(errno);
  }
  EXPECT_EQ(run(station({"grab", image, "-o", disk / "a.nv12"})).exitCode, 7);
  EXPECT_TRUE(fs::is_empty(disk));
  umount(disk.c_str());
}

TEST_F(Grab, SaysThatAnImageNeedsTooMuchMemory) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "sanitizers need more address space";
#endif
  ffmpeg("color=red:size=6000x6000", {"-frames:v", "1", "-pix_fmt", "gray", folder_ / "image.png"});
  int refused = 0;
  for (const char* const bytes : {"350000000", "450000000", "550000000", "650000000"}) {
    std::vector<std::string> limited =
        station({"grab", folder_ / "image.png", "-o", folder_ / "a.png"});
    limited.insert(limited.begin(), {"prlimit", "--core=0", std::string("--as=") + bytes});
    const Result result = run(limited);
    refused += result.exitCode == 5 ? 1 : 0;
    EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 5) << bytes << result.err;
  }
  EXPECT_GT(refused, 0);
}

TEST_F(Grab, FailuresAreTheLibrarysOwnLine) {
  const std::string image = folder_ / "image.png";
  ffmpeg("color=red:size=4x4", {"-frames:v", "1", image});
  ffmpeg("color=red:size=16x16,format=rgb24,crop=1:16", {"-frames:v", "1", folder_ / "thin.png"});
  ffmpeg("color=red:size=512x8192,setsar=30/1", {"-frames:v", "1", folder_ / "wide.mkv"});
  ffmpeg("sine=duration=1", {folder_ / "tone.wav", folder_ / "tone.ogg"});
  std::ofstream(folder_ / "empty") << "";
  const std::tuple<std::string, std::string, int, std::string> rows[] = {
      {"/dev/video999", folder_ / "a.png", 5,
       "source failed: Cannot identify device '/dev/video999'. (system error: No such"},
      {folder_ / "tone.wav", folder_ / "a.png", 5, "source failed: no video in it: "},
      {folder_ / "tone.ogg", folder_ / "a.png", 5, "source failed: no video in it: "},
      {folder_ / "empty", folder_ / "a.png", 5, "source failed: Stream contains no data. (Can't "},
      {folder_ / "thin.png", folder_ / "a.png", 5,
       "source failed: still image is too small: " + folder_ / "thin.png"},
      {folder_ / "wide.mkv", folder_ / "a.png", 5,
       "source failed: pictures of 15360 x 8192 are too large: " + folder_ / "wide.mkv"},
      {image, folder_ / "a.gif", 2, "grab writes .png, .jpg and .nv12, not "},
      {image, "/nowhere/a.png", 6, "cannot write /nowhere/a.png: "},
  };
  for (const auto& [source, file, exitCode, text] : rows) {
    const Result result = run(station({"grab", source, "-o", file}));
    EXPECT_EQ(result.exitCode, exitCode) << text;
    EXPECT_EQ(result.err.rfind("media-station: " + text, 0), 0U) << result.err;
    EXPECT_EQ(result.err.find('\n'), result.err.size() - 1) << result.err;
  }
}

}  // namespace
