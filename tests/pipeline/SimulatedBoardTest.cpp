#include <algorithm>
#include <string>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <media_backend/GstVideoBackend.h>
#include <simulated_board/SimulatedBoard.h>
#include <simulated_board/Surface.h>
#include <sys/mman.h>
#include <unistd.h>

#include "gst/GstPtr.h"
#include "support/Bytes.h"
#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/Profiles.h"
#include "support/Requirements.h"

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
  std::string bytes;
};

// What comes out of `frames` frames of `pattern`, moving, through `chain`.
std::vector<Unit> encode(const std::string& pattern, int frames, const std::string& chain) {
  Pipeline pipeline("videotestsrc num-buffers=" + std::to_string(frames) + " pattern=" + pattern +
                    " ! video/x-raw" + kFormat + chain + " ! appsink name=out sync=false");
  std::vector<Unit> units;
  while (GstSample* const sample = pipeline.pull()) {
    GstBuffer* const buffer = gst_sample_get_buffer(sample);
    units.push_back({!GST_BUFFER_FLAG_IS_SET(buffer, GST_BUFFER_FLAG_DELTA_UNIT), bytesOf(buffer)});
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

  void TearDown() override {
    if (!untried_.empty()) {
      GTEST_SKIP() << "not everything was tried, this machine lacks what is needed for" << untried_;
    }
  }

  // Whether this machine has all that `chain` takes, with a decoder if it names one; notes it if
  // not.
  bool canRun(const std::string& chain, const char* decoder = "identity") {
    g_autoptr(GstElementFactory) factory = gst_element_factory_find(decoder);
    const bool possible =
        factory != nullptr && (chain.find("av1") == std::string::npos || canEncodeAv1());
    untried_ += possible ? "" : "\n  " + chain;
    return possible;
  }

 private:
  std::string untried_;
};

TEST_F(SimulatedBoardTest, SaysWhichSelectionItCannotRegister) {
  std::string error;
  EXPECT_FALSE(simulated_board::registerElements(nullptr, "nvvidconv,nvmagic", error));
  EXPECT_THAT(error, HasSubstr("\"nvmagic\""));
  EXPECT_FALSE(simulated_board::registerElements(nullptr, "", error));
}

TEST_F(SimulatedBoardTest, KeyFramesComeAtTheirDistanceAndNotAtCuts) {
  constexpr int kFrames = 60;
  const std::pair<std::string, int> rows[] = {
      {kToBoardMemory + "nvv4l2h264enc iframeinterval=50 preset-level=3", 50},
      {kToBoardMemory + "nvv4l2h264enc iframeinterval=25 idrinterval=10 preset-level=3", 10},
      {kToBoardMemory + "nvv4l2h264enc iframeinterval=0 idrinterval=0", kFrames},
      {kToBoardMemory + "nvv4l2h265enc iframeinterval=10 idrinterval=40", 10},
      {kToBoardMemory + "nvv4l2h265enc iframeinterval=4294967295 idrinterval=45", 45},
      {kToBoardMemory + "nvv4l2av1enc iframeinterval=20 idrinterval=0", 20},
      {" ! vpuenc_h264 gop-size=12", 12},
      {" ! vpuenc_hevc gop-size=0", kFrames},
  };
  for (const auto& [chain, distance] : rows) {
    SCOPED_TRACE(chain);
    if (!canRun(chain)) {
      continue;
    }
    // No frame of snow resembles the one before it: a cut at every frame.
    const std::vector<Unit> units = encode("snow", kFrames, chain);
    for (int i = 0; i < kFrames; ++i) {
      EXPECT_EQ(units.at(static_cast<std::size_t>(i)).key, i % distance == 0) << "frame " << i;
    }
  }
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
class OddPicture {
 public:
  OddPicture() {
    std::vector<std::uint8_t> bytes(kSize, 0xee);
    for (std::size_t y = 0; y < kHeight; ++y) {
      std::copy_n(picture_->luma() + y * picture_->stride(), kWidth,
                  &bytes[kLumaOffset + y * kLumaStride]);
      std::copy_n(picture_->chroma() + y / 2 * picture_->stride(), kWidth,
                  &bytes[kChromaOffset + y / 2 * kChromaStride]);
    }
    EXPECT_EQ(write(fd_, bytes.data(), kSize), static_cast<ssize_t>(kSize));
  }
  ~OddPicture() { close(fd_); }
  OddPicture(const OddPicture&) = delete;
  OddPicture& operator=(const OddPicture&) = delete;

  const lumora::LumoraPicture& picture() const { return *picture_; }
  Surface& surface() { return surface_; }

  // The picture outlives the buffer.
  GstBuffer* buffer(bool boardMemory) {
    const lumora::FrameExportHandle handle = {true,
                                              fd_,
                                              kSize,
                                              kWidth,
                                              kHeight,
                                              true,
                                              2,
                                              {{kLumaOffset, kLumaStride, kWidth, kHeight},
                                               {kChromaOffset, kChromaStride, kWidth, kHeight / 2}},
                                              &surface_};
    return GstVideoBackend(boardMemory ? nvidiaProfile() : imxProfile()).wrapFrame(handle, nullptr);
  }

 private:
  static constexpr std::size_t kLumaOffset = 77;
  static constexpr unsigned kLumaStride = 365;
  static constexpr unsigned kChromaStride = 333;
  static constexpr std::size_t kChromaOffset =
      kLumaOffset + std::size_t{kLumaStride} * kHeight + 19;
  static constexpr std::size_t kSize = kChromaOffset + std::size_t{kChromaStride} * kHeight / 2 + 5;
  static constexpr Surface::Plane kLuma = {kLumaOffset, kLumaStride, kHeight};
  static constexpr Surface::Plane kChroma = {kChromaOffset, kChromaStride, kHeight / 2};

  const std::shared_ptr<lumora::LumoraPicture> picture_ = movingPicture(kWidth, kHeight, 0);
  const int fd_ = memfd_create("odd-picture", MFD_CLOEXEC);
  Surface surface_ = {Surface::kMagic, fd_, kSize, kWidth, kHeight, {kLuma, kChroma}};
};

std::string source(bool boardMemory) {
  return std::string("appsrc name=in is-live=true format=time caps=\"video/x-raw") +
         (boardMemory ? "(memory:NVMM)" : "") + kFormat + "\" ! ";
}

TEST_F(SimulatedBoardTest, ReadsPicturesWhereverTheirRowsAre) {
  const std::string sink = " ! videoconvert ! video/x-raw" + kFormat + " ! appsink name=out";
  // Board memory or not, chain, the decoder or another element that it needs, and the least PSNR
  // in dB; 100 is the very picture.
  const std::tuple<bool, std::string, const char*, double> rows[] = {
      {false, "vpuenc_h264 ! h264parse ! avdec_h264", "avdec_h264", 30},
      {false, "imxvideoconvert_g2d ! vpuenc_hevc ! h265parse ! avdec_h265", "avdec_h265", 30},
      {true, "nvv4l2h264enc ! h264parse ! avdec_h264", "avdec_h264", 30},
      {true, "nvv4l2h265enc ! h265parse ! avdec_h265", "avdec_h265", 30},
      {true, "nvv4l2av1enc ! av1parse ! av1dec", "av1dec", 30},
      {true, "nvjpegenc ! jpegdec", "jpegdec", 30},
      {true, "nvvidconv ! video/x-raw", "videoconvert", 100},
      {false, "nvvidconv ! video/x-raw(memory:NVMM) ! nvvideoconvert", "videoconvert", 100},
      {true, "nvvidconv ! video/x-raw(memory:NVMM),width=640,height=90 ! nvvidconv", "videoconvert",
       30},
  };
  for (const auto& [boardMemory, chain, decoder, least] : rows) {
    SCOPED_TRACE(chain);
    if (!canRun(chain, decoder)) {
      continue;
    }
    OddPicture picture;
    Pipeline pipeline(source(boardMemory) + chain + sink);
    for (GstClockTime i = 0; i < 3; ++i) {  // a decoder may hold pictures back
      GstBuffer* const buffer = picture.buffer(boardMemory);
      GST_BUFFER_PTS(buffer) = i * GST_SECOND / 30;
      pipeline.push(buffer);
    }
    pipeline.finish();
    g_autoptr(GstSample) sample = pipeline.pull();
    ASSERT_NE(sample, nullptr);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ));
    ASSERT_EQ(map.size, kWidth * kHeight * 3 / 2);  // GStreamer pads no row of this size
    EXPECT_GE(psnr(map.data, picture.picture()), least);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
}

TEST_F(SimulatedBoardTest, EveryFrameComesOutAtOnceWithItsTimes) {
  for (const std::string element :
       {"nvv4l2h264enc", "nvv4l2h265enc", "nvv4l2av1enc", "nvjpegenc", "nvvidconv", "vpuenc_h264",
        "vpuenc_hevc", "imxvideoconvert_g2d"}) {
    const bool boardMemory = element[0] == 'n';
    SCOPED_TRACE(element);
    if (!canRun(element)) {
      continue;
    }
    OddPicture picture;
    Pipeline pipeline(source(boardMemory) + element + " ! appsink name=out sync=false");
    for (GstClockTime i = 0; i < 6; ++i) {
      const GstClockTime pts = 7 * GST_SECOND + i * 33333333 + i % 3 * 1000;
      GstBuffer* const buffer = picture.buffer(boardMemory);
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
    OddPicture picture;
    spoil(picture.surface());
    Pipeline pipeline(source(true) + "nvv4l2h264enc ! appsink name=out");
    pipeline.push(picture.buffer(true));
    g_autoptr(GError) error = pipeline.error();
    ASSERT_TRUE(g_error_matches(error, GST_STREAM_ERROR, GST_STREAM_ERROR_FORMAT));
    EXPECT_THAT(error->message, HasSubstr(message));
  }
}

}  // namespace
