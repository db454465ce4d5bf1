// How frames get to the encoder: which elements take which frames.

#include <gtest/gtest.h>

#include <filesystem>

#include "Program.h"
#include "support/Clip.h"
#include "support/TempFolder.h"

namespace {

using Options = std::vector<std::string>;

// Records a second on a board whose elements `own` are its own, and not simulated.
class OwnBoard : public testing::Test {
 protected:
  Result record(const std::string& own, const Options& options) {
    Options command = {"env",
                       "-u",
                       "GST_REGISTRY_UPDATE",
                       "ASAN_OPTIONS=detect_leaks=0",
                       "GST_REGISTRY_FORK=no",
                       std::string("GST_PLUGIN_PATH=") + OTHER_BOARD,
                       "GST_REGISTRY=" + folder_ / "registry",
                       "SIMULATED_BOARD=" + own,
                       MEDIA_STATION,
                       "record",
                       clip_,
                       "--duration",
                       "0.5",
                       "-o",
                       folder_ / "out"};
    command.insert(command.end(), options.begin(), options.end());
    return run(command);
  }

  const TempFolder folder_;
  const std::string clip_ = [this] {
    const std::string file = folder_ / "clip.mp4";
    makeClip(file, "318x182", 10, 10);
    return file;
  }();
};

TEST_F(OwnBoard, TakesNoFrameOfTheSimulatedOne) {
  struct Row {
    const char* own;
    Options options;
    const char* says;
  };
  const Row rows[] = {
      {"nvidia", {"--feed", "zero-copy"}, "no zero copy: zero copy needs the host's picture"},
      {"nvidia", {"--memory", "memfd"}, "only simulated elements take memory files"},
      {"imx", {"--memory", "memfd"}, "only simulated elements take memory files"},
      {"nvv4l2h264enc", {"--board", "nvvidconv"}, "some of the board's elements are simulated"},
  };
  for (const Row& row : rows) {
    const Result result = record(row.own, row.options);
    EXPECT_EQ(result.exitCode, 2) << result.err;
    EXPECT_NE(result.err.find(row.says), std::string::npos) << result.err;
    EXPECT_FALSE(std::filesystem::exists(folder_ / "out"));
  }
}

TEST_F(OwnBoard, RecordsCopies) {
  const Result result = record("nvidia", {});
  EXPECT_TRUE(hasRecorded(result)) << result.err;
  EXPECT_EQ(result.err.find("copying feed: zero copy needs the host's picture library\n"), 0U)
      << result.err;
  // As they went in: ffmpeg compares the pictures.
  const std::string file = std::filesystem::directory_iterator(folder_ / "out")->path();
  const Result compared = run({"ffmpeg", "-nostdin", "-i", file, "-i", clip_, "-frames:v", "1",
                               "-lavfi", "psnr=stats_file=-", "-f", "null", "-"});
  const std::size_t psnr = compared.out.find("psnr_avg:");
  ASSERT_NE(psnr, std::string::npos) << compared.err;
  EXPECT_GT(std::stod(compared.out.substr(psnr + 9)), 30) << compared.out;
}

}  // namespace
