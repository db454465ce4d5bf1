// Pictures of a source come out as they went in: colours, speed and shape, as ffmpeg and ffprobe
// read the result.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <tuple>

#include "Program.h"
#include "Server.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using Options = std::vector<std::string>;

std::string bytesOf(const fs::path& file) {
  std::ifstream stream(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

fs::path onlyFileIn(const fs::path& folder) {
  return fs::directory_iterator(folder)->path();
}

// A picture with eight patches, in four columns and two rows.
class Patches {
 public:
  Patches() {
    std::ofstream(folder_ / "patches.ppm", std::ios::binary) << "P6 4 2 255\n" << colours_;
  }

  // The picture as a clip, or as an image; `filter` and `options` are ffmpeg's.
  std::string make(const std::string& name, const std::string& size, const std::string& filter,
                   const Options& options) const {
    Options command = {"ffmpeg",
                       "-v",
                       "error",
                       "-loop",
                       "1",
                       "-i",
                       folder_ / "patches.ppm",
                       "-vf",
                       "scale=" + size + ":flags=neighbor" + filter};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(command.end(), {folder_ / name});
    runCommand(command);
    return folder_ / name;
  }

  // Whether ffmpeg shows every patch of the first picture, within `most` of 255.
  testing::AssertionResult areIn(const std::string& source, const Options& options = {},
                                 int most = 3) const {
    const std::string pixels = folder_ / "pixels.rgb";
    Options command = {"ffmpeg", "-v", "error", "-y"};
    command.insert(command.end(), options.begin(), options.end());
    command.insert(
        command.end(),
        {"-i", source, "-frames:v", "1", "-vf",
         "scale=flags=accurate_rnd+full_chroma_int,format=rgb24,scale=4:2:flags=neighbor", "-f",
         "rawvideo", pixels});
    runCommand(command);
    const std::string shown = bytesOf(pixels);
    for (std::size_t i = 0; i < colours_.size(); ++i) {
      const int is = static_cast<unsigned char>(shown.at(i));
      const int shouldBe = static_cast<unsigned char>(colours_[i]);
      if (std::abs(is - shouldBe) > most) {
        return testing::AssertionFailure() << source << ": patch " << i / 3 << " has " << is
                                           << " instead of " << shouldBe << " in "
                                           << "RGB"[i % 3];
      }
    }
    return testing::AssertionSuccess();
  }

  const TempFolder& folder() const { return folder_; }

 private:
  // Not only pure colours: those remain where a full range is taken for a limited one.
  const std::string colours_{
      "\xff\x00\x00"
      "\x00\xff\x00"
      "\x00\x00\xff"
      "\xc8\x78\x28"
      "\x3c\x78\xb4"
      "\x40\x40\x40"
      "\xff\xff\xff"
      "\x00\x00\x00",
      24};
  TempFolder folder_;
};

const Options kClip = {"-t", "0.5", "-r", "30", "-c:v", "libx264", "-qp", "1"};

Options clipOptions(const Options& tags) {
  Options options = kClip;
  options.insert(options.end(), tags.begin(), tags.end());
  return options;
}

// Full-range BT.709 is nobody's default.
std::string makeUncommon(const Patches& patches) {
  std::string clip =
      patches.make("uncommon.mp4", "320:180", ":out_color_matrix=bt709:out_range=pc,format=yuv420p",
                   clipOptions({"-colorspace", "bt709", "-color_primaries", "bt709", "-color_trc",
                                "bt709", "-color_range", "pc"}));
  EXPECT_TRUE(patches.areIn(clip));
  return clip;
}

TEST(Picture, KeepsTheColoursOfEverySource) {
  const Patches patches;
  const Options untagged = {};
  const Options bt601 = {"-colorspace", "smpte170m", "-color_primaries", "smpte170m",
                         "-color_trc",  "smpte170m", "-color_range",     "tv"};
  const Options bt709 = {"-colorspace", "bt709", "-color_primaries", "bt709",
                         "-color_trc",  "bt709", "-color_range",     "tv"};
  const std::string sd = ":out_color_matrix=bt601:out_range=tv,format=yuv420p";
  const std::string hd = ":out_color_matrix=bt709:out_range=tv,format=yuv420p";
  const std::tuple<const char*, std::string, std::string, Options, Options> rows[] = {
      {"601.mp4", "320:180", sd, clipOptions(bt601), {}},
      {"709.mp4", "320:180", hd, clipOptions(bt709), {}},
      {"601-hd.mp4", "1280:720", sd, clipOptions(bt601), {}},
      {"full.mp4", "320:180", ",format=yuvj420p", clipOptions({"-color_range", "pc"}), {}},
      {"untagged.mp4", "320:180", sd, clipOptions(untagged), {}},
      {"untagged-hd.mp4", "1280:720", hd, clipOptions(untagged), {}},
      {"enlarged.mp4", "320:180", sd, clipOptions(untagged), {"--width", "1280"}},
      {"mjpeg.avi", "320:180", ",format=yuvj420p", {"-t", "0.5", "-q:v", "1"}, {}},
      {"rgb.avi", "320:180", ",format=bgr24", {"-t", "0.5", "-c:v", "rawvideo"}, {}},
      {"still.png", "320:180", "", {"-frames:v", "1"}, {}},
  };
  for (const auto& [name, size, filter, options, more] : rows) {
    const std::string source = patches.make(name, size, filter, options);
    ASSERT_TRUE(patches.areIn(source) || std::string(name) == "untagged-hd.mp4");
    const std::string output = patches.folder() / name + ".out";
    const Result result = run(station({"record", source, "-o", output, "--board", "nvidia",
                                       "--bitrate", "20000000", "--duration", "0.2"},
                                      more));
    ASSERT_TRUE(result.exitCode == 0 || result.exitCode == 9) << result.err;  // 9: frames dropped
    // GStreamer scales across its limit between BT.601 and 709 with 8 bits.
    EXPECT_TRUE(patches.areIn(onlyFileIn(output), {}, more.empty() ? 3 : 5)) << name;
  }
}

// Path, codec and board of a server's response, and ffmpeg's name of its format.
using Response = std::tuple<const char*, const char*, const char*, const char*>;

class HttpPicture : public testing::TestWithParam<Response> {};

TEST_P(HttpPicture, HasTheColoursOfTheSource) {
  const auto& [path, codec, board, format] = GetParam();
  const Patches patches;
  Server server("http", {"--board", board, "--codec", codec, "--bitrate", "20000000"},
                makeUncommon(patches));
  const std::string file = patches.folder() / "response";
  run({"curl", "-sS", "--max-time", "2", "-o", file, server.url() + path});
  EXPECT_TRUE(patches.areIn(file, {"-f", format}));
  server.stop();
}

INSTANTIATE_TEST_SUITE_P(Responses, HttpPicture,
                         testing::Values(Response{"/stream.h264", "h264", "imx", "h264"},
                                         Response{"/stream.h265", "h265", "nvidia", "hevc"},
                                         Response{"/stream.obu", "av1", "nvidia", "obu"},
                                         Response{"/stream.mjpeg", "mjpeg", "nvidia", "mpjpeg"},
                                         Response{"/stream.mjpeg", "h264", "imx", "mpjpeg"},
                                         Response{"/snapshot.jpg", "h264", "vpuenc_h264",
                                                  "mjpeg"}));

TEST(Picture, KeepsItsColoursOverRtsp) {
  const Patches patches;
  Server server("rtsp", {"--board", "imx", "--codec", "h265", "--bitrate", "20000000"},
                makeUncommon(patches));
  EXPECT_TRUE(patches.areIn(server.url(), {"-rtsp_transport", "tcp"}));
  server.stop();
}

TEST(Picture, KeepsItsColoursInImages) {
  const Patches patches;
  const std::string clip = makeUncommon(patches);
  for (const char* const name : {"grabbed.png", "grabbed.jpg"}) {
    run(station({"grab", clip, "-o", patches.folder() / name}));
    EXPECT_TRUE(patches.areIn(patches.folder() / name));
  }
}

// Seconds from the first frame to the last, by ffprobe.
double lengthOf(const fs::path& file) {
  const Result result = run({"ffprobe", "-v", "error", "-select_streams", "v", "-show_entries",
                             "packet=pts_time", "-of", "default=nokey=1:noprint_wrappers=1", file});
  std::istringstream lines(result.out);
  const std::vector<double> times{std::istream_iterator<double>(lines), {}};
  const auto [first, last] = std::minmax_element(times.begin(), times.end());
  return *last - *first;
}

TEST(Picture, PlaysAtTheSpeedOfTheFile) {
  const TempFolder folder;
  // Frame rate of the file, options of the station; frames that it records, and their rate.
  const std::tuple<const char*, Options, int, double> rows[] = {
      {"60", {}, 120, 60},
      {"24000/1001", {}, 48, 24000.0 / 1001},
      {"60", {"--fps", "20"}, 40, 20},
      {"15", {"--fps", "30"}, 60, 30},
      {"30,select=not(mod(n\\,3))+lt(n\\,30)", {}, 58, 30},  // and 10 in the last second
  };
  for (const auto& [fileRate, options, frames, rate] : rows) {
    const std::string clip = folder / "clip.mp4";
    runCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                std::string("testsrc2=duration=2:size=320x180:rate=") + fileRate, "-vsync", "vfr",
                clip});
    fs::remove_all(folder / "out");
    const Result result = run(
        station({"record", clip, "--board", "imx", "--no-loop", "-o", folder / "out"}, options));
    int recorded = 0;
    int dropped = 0;  // on a busy machine
    std::sscanf(result.out.c_str(), "recorded %d frames, %d dropped", &recorded, &dropped);
    EXPECT_EQ(recorded + dropped, frames) << fileRate << result.out << result.err;
    // The first or the last frame may be missing on a busy machine.
    EXPECT_NEAR(lengthOf(onlyFileIn(folder / "out")), (frames - 1) / rate, 0.3) << fileRate;
  }
}

TEST(Picture, ShowsTheFrameOfItsTimeAtAnotherRate) {
  const TempFolder folder;
  makeClip(folder / "clip.mkv", "320x180", 60, 12);
  const auto grab = [&folder](const char* name, const char* fps, const char* count) {
    run(station(
        {"grab", folder / "clip.mkv", "-o", folder / name, "--fps", fps, "--count", count}));
  };
  grab("own.png", "60", "12");
  grab("slow.png", "20", "3");
  grab("fast.png", "120", "12");
  EXPECT_TRUE(bytesOf(folder / "slow-0003.png") == bytesOf(folder / "own-0007.png"));
  EXPECT_TRUE(bytesOf(folder / "fast-0012.png") == bytesOf(folder / "own-0006.png"));
  EXPECT_FALSE(bytesOf(folder / "own-0006.png") == bytesOf(folder / "own-0007.png"));
}

TEST(Picture, IsUprightIfTheFileIsTaggedAsTurned) {
  const TempFolder folder;
  const std::string clip = folder / "clip.mp4";
  const std::string turned = folder / "turned.mp4";
  makeClip(clip, "320x180", 30, 3, {"-pix_fmt", "yuv420p"});
  for (const char* const angle : {"90", "180", "270"}) {
    runCommand({"ffmpeg", "-v", "error", "-y", "-i", clip, "-c", "copy", "-metadata:s:v",
                std::string("rotate=") + angle, turned});
    runCommand({"ffmpeg", "-v", "error", "-y", "-i", turned, "-frames:v", "1", "-pix_fmt", "nv12",
                "-f", "rawvideo", folder / "upright"});
    run(station({"grab", turned, "-o", folder / "picture.nv12"}));
    EXPECT_TRUE(bytesOf(folder / "picture.nv12") == bytesOf(folder / "upright")) << angle;
  }
}

TEST(Picture, KeepsItsShape) {
  constexpr int kWhite = 235;
  constexpr int kBorder = 16;
  const TempFolder folder;
  // Size and pixel aspect ratio of the file; options, size and first luma sample of the result.
  const std::tuple<const char*, const char*, Options, const char*, int> rows[] = {
      {"180x320", "1/1", {}, "180 x 320", kWhite},
      {"180x144", "16/15", {}, "192 x 144", kWhite},
      {"180x120", "8/9", {}, "160 x 120", kWhite},
      {"320x180", "1/1", {"--width", "160"}, "160 x 90", kWhite},
      {"180x120", "8/9", {"--height", "240"}, "320 x 240", kWhite},
      {"320x180", "1/1", {"--width", "640", "--height", "360"}, "640 x 360", kWhite},
      {"180x320", "1/1", {"--width", "320", "--height", "180"}, "320 x 180", kBorder},
      {"320x180", "1/1", {"--width", "180", "--height", "320"}, "180 x 320", kBorder},
      {"180x320", "1/1", {"--width", "320", "--height", "180", "--stretch"}, "320 x 180", kWhite},
  };
  for (const auto& [size, ratio, options, result, corner] : rows) {
    const std::string clip = folder / "clip.mkv";
    runCommand({"ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i",
                std::string("color=white:duration=0.1:size=") + size + ",setsar=" + ratio, clip});
    const std::string picture = folder / "picture.nv12";
    EXPECT_EQ(run(station({"grab", clip, "-o", picture}, options)).out,
              picture + "  " + result + "\n");
    const std::string nv12 = bytesOf(picture);
    EXPECT_NEAR(static_cast<unsigned char>(nv12[0]), corner, 1) << size << result;
    const std::size_t middle = nv12.size() / 3 + std::stoul(result) / 2;
    EXPECT_NEAR(static_cast<unsigned char>(nv12[middle]), kWhite, 1) << size << result;
  }
}

}  // namespace
