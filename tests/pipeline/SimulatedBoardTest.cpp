#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>
#include <simulated_board/Surface.h>
#include <sys/mman.h>
#include <unistd.h>

#include "gst/UniqueFd.h"
#include "support/Command.h"
#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/Profiles.h"
#include "support/Requirements.h"
#include "support/TempFolder.h"

namespace {

using media_backend::GstVideoBackend;
using simulated_board::Surface;
using testing::HasSubstr;

constexpr unsigned kWidth = 320;
constexpr unsigned kHeight = 180;
const std::string kFormat = ",format=NV12,framerate=30/1,width=320,height=180";
const std::string kToBoardMemory = " ! nvvidconv ! video/x-raw(memory:NVMM),format=NV12 ! ";

struct Unit {
  bool key;
  GstClockTime pts;
  std::string bytes;
};

// What comes out of `frames` frames of `pattern`, moving, through `chain`.
std::vector<Unit> encode(const std::string& pattern, int frames, const std::string& chain) {
  Pipeline pipeline("videotestsrc num-buffers=" + std::to_string(frames) + " pattern=" + pattern +
                    " ! video/x-raw" + kFormat + chain + " ! appsink name=out sync=false");
  std::vector<Unit> units;
  while (GstSample* const sample = pipeline.pull()) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    units.push_back({!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT),
                     GST_BUFFER_PTS(buffer), bytesOf(buffer)});
    gst_sample_unref(sample);
  }
  EXPECT_EQ(units.size(), static_cast<std::size_t>(frames));
  return units;
}

class SimulatedBoardTest : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    std::string error;
    ASSERT_TRUE(simulated_board::registerElements(nullptr, "nvidia,imx", error)) << error;
  }
};

TEST_F(SimulatedBoardTest, KeyFramesComeAtTheirDistanceAndNotAtCuts) {
  constexpr int kFrames = 60;
  const std::pair<std::string, int> rows[] = {
      {kToBoardMemory + "nvv4l2h264enc iframeinterval=25 idrinterval=10 preset-level=3", 10},
      {kToBoardMemory + "nvv4l2h264enc iframeinterval=0 idrinterval=0", kFrames},
      {kToBoardMemory + "nvv4l2h265enc iframeinterval=4294967295 idrinterval=45", 45},
      {" ! vpuenc_h264 gop-size=12", 12},
      {" ! vpuenc_hevc gop-size=0", kFrames},
      {kToBoardMemory + "nvv4l2av1enc iframeinterval=20 idrinterval=0", 20},
  };
  for (const auto& [chain, distance] : rows) {
    SCOPED_TRACE(chain);
    if (chain.find("av1") != std::string::npos && !canEncodeAv1()) {
      GTEST_SKIP() << "not AV1, which takes GStreamer 1.20";
    }
    // No frame of snow resembles the one before it: a cut at every frame.
    const std::vector<Unit> units = encode("snow", kFrames, chain);
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_EQ(units.at(static_cast<std::size_t>(i)).key, i % distance == 0) << "frame " << i;
    }
  }
}

TEST_F(SimulatedBoardTest, ReplayedGroupsDecodeWholeWithTheTimesOfTheirFrames) {
  constexpr std::size_t kGroup = 10;
  const TempFolder folder;
  setenv("SIMULATED_BOARD_ENCODER", "replay", 1);
  for (const char* const chain :
       {" ! vpuenc_h264 gop-size=10", " ! vpuenc_hevc gop-size=10",
        " ! nvvidconv ! video/x-raw(memory:NVMM),format=NV12 ! nvv4l2h264enc iframeinterval=10"}) {
    SCOPED_TRACE(chain);
    const std::vector<Unit> units = encode("ball", 55, chain);
    std::ofstream stream(folder / "stream");
    for (std::size_t i = 0; i < units.size(); ++i) {
      EXPECT_EQ(units[i].key, i % kGroup == 0) << i;
      EXPECT_EQ(units[i].bytes == units[i % kGroup].bytes, i < kGroup || i > kGroup) << i;
      EXPECT_EQ((units[i].pts - units[0].pts + 500) / 1000, (i * 1000000 + 15) / 30) << i;
      stream << units[i].bytes;
    }
    stream.close();
    runCommand({"sh", "-c",
                "test $(ffprobe -v error -count_frames -show_entries "
                "stream=nb_read_frames -of csv=p=0 " +
                    (folder / "stream") + ") = 55"});
  }
  unsetenv("SIMULATED_BOARD_ENCODER");
}

TEST_F(SimulatedBoardTest, ParameterSetsRepeatOnlyWhenAskedFor) {
  for (const bool h265 : {false, true}) {
    const std::string sps = h265 ? std::string("\0\0\1\x42\1", 5) : std::string("\0\0\1\x67", 4);
    for (const bool repeat : {false, true}) {
      const auto units = encode("ball", 40,
                                kToBoardMemory + (h265 ? "nvv4l2h265enc" : "nvv4l2h264enc") +
                                    " iframeinterval=10" + (repeat ? " insert-sps-pps=true" : ""));
      for (std::size_t i = 0; i < units.size(); ++i) {
        const bool found = units[i].bytes.find(sps) != std::string::npos;
        EXPECT_EQ(found, i == 0 || (repeat && i % 10 == 0)) << "H.265 " << h265 << ", frame " << i;
      }
    }
  }
}

TEST_F(SimulatedBoardTest, RefusesOtherMemoryWhenItIsParsed) {
  for (const char* const encoder : {"nvv4l2h264enc", "nvv4l2h265enc", "nvv4l2av1enc"}) {
    for (const char* const source :
         {"videotestsrc", "videotestsrc ! nvvidconv ! video/x-raw,format=NV12"}) {
      g_autoptr(GError) error = nullptr;
      const std::string text = std::string(source) + " ! " + encoder + " ! fakesink";
      const media_backend::GstPtr<GstElement> pipeline(gst_parse_launch(text.c_str(), &error));
      ASSERT_NE(error, nullptr) << text;
      EXPECT_TRUE(g_error_matches(error, GST_PARSE_ERROR, GST_PARSE_ERROR_LINK)) << text;
    }
  }
}

TEST_F(SimulatedBoardTest, SaysWhichElementIsMissingInside) {
  GstRegistry* const registry = gst_registry_get();
  g_autoptr(GstPluginFeature) feature = gst_registry_lookup_feature(registry, "x264enc");
  ASSERT_NE(feature, nullptr);
  gst_registry_remove_feature(registry, feature);
  Pipeline pipeline("appsrc name=in ! vpuenc_h264 ! appsink name=out");
  g_autoptr(GError) error = pipeline.error();
  ASSERT_TRUE(g_error_matches(error, GST_CORE_ERROR, GST_CORE_ERROR_MISSING_PLUGIN));
  EXPECT_THAT(error->message, AllOf(HasSubstr("x264enc"), HasSubstr("gstreamer1.0-plugins-ugly")));
  gst_registry_add_feature(registry, GST_PLUGIN_FEATURE(gst_object_ref(feature)));
}

// A picture with odd strides and room before, between and behind its planes.
struct OddPicture {
  static constexpr std::uint64_t kChroma = 77 + 365 * kHeight + 19;
  static constexpr std::uint64_t kSize = kChroma + 333 * kHeight / 2 + 5;

  OddPicture() {
    std::vector<std::uint8_t> bytes(kSize, 0xee);
    for (std::size_t y = 0; y < kHeight * 3 / 2; ++y) {
      const Surface::Plane& plane = surface.planes[y / kHeight];
      std::copy_n(picture->luma() + y * kWidth, kWidth,
                  &bytes[plane.offset + y % kHeight * plane.stride]);
    }
    EXPECT_EQ(write(fd.get(), bytes.data(), kSize), static_cast<ssize_t>(kSize));
  }

  // The picture outlives the buffer.
  GstBuffer* wrap(bool boardMemory) {
    lumora::FrameExportHandle handle = {true, fd.get(), kSize, kWidth, kHeight, true, 2, {}};
    handle.planes[0] = {77, 365, kWidth, kHeight};
    handle.planes[1] = {kChroma, 333, kWidth, kHeight / 2};
    handle.surface = &surface;
    return GstVideoBackend(boardMemory ? nvidiaProfile() : imxProfile()).wrapFrame(handle, nullptr);
  }

  const std::shared_ptr<lumora::LumoraPicture> picture = movingPicture(kWidth, kHeight, 0);
  const media_backend::UniqueFd fd{memfd_create("odd-picture", MFD_CLOEXEC)};
  Surface surface = {Surface::kMagic, fd.get(), kSize,
                     kWidth,          kHeight,  {{77, 365, kHeight}, {kChroma, 333, kHeight / 2}}};
};

std::string source(bool boardMemory) {
  return std::string("appsrc name=in is-live=true format=time caps=\"video/x-raw") +
         (boardMemory ? "(memory:NVMM)" : "") + kFormat + "\" ! ";
}

TEST_F(SimulatedBoardTest, ReadsPicturesWhereverTheirRowsAre) {
  const std::string sink = " ! videoconvert ! video/x-raw" + kFormat + " ! appsink name=out";
  // Board memory or not, chain, and the least PSNR in dB; 100 is the very picture.
  const std::tuple<bool, std::string, double> rows[] = {
      {false, "imxvideoconvert_g2d ! video/x-raw,format=I420", 100},
      {true, "nvjpegenc ! jpegdec", 30},
      {true, "nvvidconv ! video/x-raw", 100},
      {false, "nvvidconv ! video/x-raw(memory:NVMM) ! nvvideoconvert", 100},
      {true, "nvvidconv ! video/x-raw(memory:NVMM),width=640,height=90 ! nvvidconv", 30},
  };
  for (const auto& [boardMemory, chain, least] : rows) {
    SCOPED_TRACE(chain);
    OddPicture odd;
    Pipeline pipeline(source(boardMemory) + chain + sink);
    pipeline.push(odd.wrap(boardMemory));
    pipeline.finish();
    const std::vector<std::string> pictures = pipeline.pullAll();
    ASSERT_EQ(pictures.size(), 1U);
    ASSERT_EQ(pictures[0].size(), kWidth * kHeight * 3 / 2);  // GStreamer pads no row of this size
    EXPECT_GE(psnr(reinterpret_cast<const std::uint8_t*>(pictures[0].data()), *odd.picture), least);
  }
}

TEST_F(SimulatedBoardTest, EveryFrameComesOutAtOnceWithItsTimes) {
  for (const std::string element :
       {"nvv4l2h264enc", "nvv4l2h265enc", "nvjpegenc", "nvvidconv", "vpuenc_h264", "vpuenc_hevc",
        "imxvideoconvert_g2d", "nvv4l2av1enc"}) {
    const bool boardMemory = element[0] == 'n';
    SCOPED_TRACE(element);
    if (element == "nvv4l2av1enc" && !canEncodeAv1()) {
      GTEST_SKIP() << "not AV1, which takes GStreamer 1.20";
    }
    OddPicture odd;
    Pipeline pipeline(source(boardMemory) + element + " ! appsink name=out sync=false");
    for (GstClockTime i = 0; i < 6; ++i) {
      const GstClockTime pts = 7 * GST_SECOND + i * 33333333 + i % 3 * 1000;
      GstBuffer* const buffer = odd.wrap(boardMemory);
      GST_BUFFER_PTS(buffer) = pts;
      GST_BUFFER_DURATION(buffer) = 33333333 + i;
      pipeline.push(buffer);
      g_autoptr(GstSample) sample = pipeline.pull();
      ASSERT_NE(sample, nullptr) << "frame " << i;
      const GstBuffer* const out = gst_sample_get_buffer(sample);
      EXPECT_EQ(GST_BUFFER_DURATION(out), 33333333 + i);
      // An encoder may shift its timestamps and its segment alike.
      EXPECT_EQ(gst_segment_to_stream_time(gst_sample_get_segment(sample), GST_FORMAT_TIME,
                                           GST_BUFFER_PTS(out)),
                pts);
    }
  }
}

TEST_F(SimulatedBoardTest, SaysWhatIsWrongWithASurface) {
  const std::pair<void (*)(Surface&), const char*> rows[] = {
      {[](Surface& surface) { surface.magic = 1; }, "magic"},
      {[](Surface& surface) { surface.height += 2; }, "320x180"},
      {[](Surface& surface) { surface.planes[0].stride = 319; }, "planes"},
      {[](Surface& surface) { surface.planes[1].offset += 19; }, "planes"},
      {[](Surface& surface) { surface.planes[1].offset = ~0ULL; }, "planes"},
      {[](Surface& surface) { surface.planes[0].rows = 1; }, "planes"},
      {[](Surface& surface) { surface.size += 1; }, "descriptor"},
  };
  for (const auto& [spoil, message] : rows) {
    SCOPED_TRACE(message);
    OddPicture odd;
    spoil(odd.surface);
    Pipeline pipeline(source(true) + "nvv4l2h264enc ! appsink name=out");
    pipeline.push(odd.wrap(true));
    g_autoptr(GError) error = pipeline.error();
    ASSERT_TRUE(g_error_matches(error, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT));
    EXPECT_THAT(error->message, HasSubstr(message));
  }
}

}  // namespace
