// The V4L2 source on the kernel's virtual camera.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gst/allocators/gstdmabuf.h>
#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>
#include <media_backend/V4l2FrameSource.h>
#include <simulated_board/SimulatedBoard.h>

#include "GstPtr.h"
#include "Vivid.h"
#include "support/Interpose.h"
#include "support/MovingPicture.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"

namespace {

GstClockTime g_taken = 0;  // when the camera took the last frame that was pulled, ns of its clock

}  // namespace

extern "C" GstSample* gst_app_sink_try_pull_sample(GstAppSink* sink, GstClockTime timeout) {
  static auto* const real =
      nextDefinition<decltype(gst_app_sink_try_pull_sample)>("gst_app_sink_try_pull_sample");
  GstSample* const sample = real(sink, timeout);
  if (sample != nullptr) {
    g_taken = gst_element_get_base_time(GST_ELEMENT(sink)) +
              GST_BUFFER_PTS(gst_sample_get_buffer(sample));
  }
  return sample;
}

namespace {

namespace fs = std::filesystem;
using media_backend::GstVideoBackend;
using media_backend::V4l2FrameSource;
using media_backend::V4l2FrameSourceConfig;
using testing::AllOf;
using testing::EndsWith;
using testing::StartsWith;
using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

constexpr auto kLong = 30s;  // no healthy capture takes as long, not even on an emulated CPU

GstClockTime now() {
  g_autoptr(GstClock) clock = gst_system_clock_obtain();
  return gst_clock_get_time(clock);
}

class VividCamera : public testing::Test {
 protected:
  void SetUp() override {
    if (!Vivid::isThere()) {
      GTEST_SKIP() << "the kernel has no vivid camera here; scripts/test-v4l2 has one";
    }
    // The element of GStreamer 1.22 keeps the device open for ever after it has stopped, unless it
    // has to wait for its buffers.
    setenv("GST_V4L2_FORCE_DRAIN", "1", 1);
  }

  static V4l2FrameSourceConfig config() { return {Vivid::device(), 320, 180, 10}; }

  std::shared_ptr<lumora::LumoraPicture> capture(const V4l2FrameSourceConfig& config,
                                                 std::chrono::nanoseconds timeout = kLong) {
    return source_.capture(config, timeout, error_);
  }

  // Captures in vain until there is an error, which is the result.
  static std::string awaitError(V4l2FrameSource& source, const V4l2FrameSourceConfig& config) {
    std::string error;
    for (int i = 0; i < 100 && error.empty(); ++i) {
      source.capture(config, 300ms, error);
    }
    return error;
  }

  V4l2FrameSource source_;
  std::string error_;
};

TEST_F(VividCamera, HasTheSizeAndAtMostTheRateThatWasAsked) {
  constexpr unsigned kFrames = 8;
  const struct {
    unsigned width;
    unsigned height;
    double fps;
  } rows[] = {{640, 360, 10}, {1280, 720, 5}, {322, 182, 12.5}};
  for (const auto& [width, height, fps] : rows) {
    SCOPED_TRACE(width);
    std::vector<GstClockTime> taken;
    for (unsigned i = 0; i < kFrames; ++i) {
      const auto picture = capture({Vivid::device(), width, height, fps});
      ASSERT_NE(picture, nullptr) << error_;
      ASSERT_EQ(picture->width(), width);
      ASSERT_EQ(picture->height(), height);
      const std::uint8_t* const row = picture->luma();
      const auto [darkest, brightest] = std::minmax_element(row, row + width);
      EXPECT_GT(*brightest - *darkest, 100);  // the driver's colour bars
      taken.push_back(g_taken);
    }
    // Frames come early or late by less than the time of one.
    EXPECT_GT(static_cast<double>(taken.back() - taken.front()), (kFrames - 2) * 1e9 / fps);
  }
}

TEST_F(VividCamera, ShowsTheNewestFrameToACallerThatSlept) {
  V4l2FrameSourceConfig slow = config();
  slow.fps = 5;
  ASSERT_NE(capture(slow), nullptr) << error_;
  for (int i = 0; i < 3; ++i) {
    std::this_thread::sleep_for(1s);
    const GstClockTime awake = now();
    ASSERT_NE(capture(slow), nullptr) << error_;
    // The newest one is up to a frame time old, and videorate keeps one until the next has come.
    EXPECT_GT(g_taken + 3 * GST_SECOND / 5, awake);
  }
}

TEST_F(VividCamera, SaysWhatIsWrongWithADevice) {
  const struct {
    const char* device;
    const char* message;
    const char* debugEnd;
  } rows[] = {
      {"/dev/video99", "Cannot identify device '/dev/video99'. (", "No such file or directory)"},
      {"/dev/null", "Error getting capabilities for device '/dev/null'", "ioctl for device)"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(capture({row.device}), nullptr);
    EXPECT_THAT(error_, AllOf(StartsWith(row.message), EndsWith(row.debugEnd)));
  }

  ASSERT_NE(capture(config()), nullptr) << error_;
  V4l2FrameSource other;
  EXPECT_THAT(awaitError(other, config()),
              AllOf(StartsWith("Device '" + Vivid::device() + "' is busy ("),
                    EndsWith("Device or resource busy)")));
  EXPECT_NE(capture(config()), nullptr) << error_;
  source_.stop();
  EXPECT_NE(other.capture(config(), kLong, error_), nullptr) << error_;
}

TEST_F(VividCamera, ComesBackAfterItWasUnplugged) {
  const V4l2FrameSourceConfig config = VividCamera::config();
  ASSERT_NE(capture(config), nullptr) << error_;
  const std::ptrdiff_t descriptors = openDescriptors();
  Vivid::unplug();
  EXPECT_THAT(awaitError(source_, config), StartsWith("Could not read from resource. ("));
  EXPECT_LT(openDescriptors(), descriptors);
  EXPECT_EQ(capture(config), nullptr);
  EXPECT_THAT(error_, StartsWith("Cannot identify device '" + config.device + "'."));
  Vivid::plug();
  ASSERT_EQ(Vivid::device(), config.device);
  EXPECT_NE(capture(config), nullptr) << error_;
  EXPECT_EQ(openDescriptors(), descriptors);
}

TEST_F(VividCamera, WaitsForFramesThatStayAway) {
  ASSERT_NE(capture(config()), nullptr) << error_;
  Vivid::setControl("Percentage of Dropped Buffers", 100);
  int inVain = 0;
  for (int i = 0; i < 100 && inVain < 3; ++i) {
    inVain = capture(config(), 300ms) == nullptr ? inVain + 1 : 0;
    EXPECT_EQ(error_, "");
  }
  EXPECT_EQ(inVain, 3);
  Vivid::setControl("Percentage of Dropped Buffers", 0);
  EXPECT_NE(capture(config()), nullptr) << error_;
}

TEST_F(VividCamera, ManyStartsLeaveNothingBehind) {
  const auto startOften = [this](int times) {
    for (int i = 0; i < times; ++i) {
      ASSERT_NE(capture(config()), nullptr) << error_;
      source_.stop();
    }
  };
  const std::ptrdiff_t threads = runningThreads();
  g_thread_pool_set_max_unused_threads(0);
  startOften(3);  // what GStreamer sets up for the process
  const std::ptrdiff_t descriptors = openDescriptors();
  const std::size_t allocated = allocatedBytes();
  const char* const wanted = std::getenv("V4L2_TEST_STARTS");
  const int starts = wanted == nullptr ? 15 : std::atoi(wanted);
  startOften(starts);
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(threadsSettle(threads)) << runningThreads() << " threads, not " << threads;
  // The element's own caches take long to fill up; one picture is more than this.
  EXPECT_LT(allocatedBytes(), allocated + static_cast<std::size_t>(starts) * 20000);
}

// What the driver exports, as a host's picture library would hand it on.
lumora::FrameExportHandle exportHandle(const GstVideoFrame& frame) {
  lumora::FrameExportHandle handle;
  GstMemory* const memory = gst_buffer_peek_memory(frame.buffer, 0);
  handle.valid = handle.isDmaBuf = gst_is_dmabuf_memory(memory) != FALSE;
  handle.fd = handle.valid ? gst_dmabuf_memory_get_fd(memory) : -1;
  handle.size = memory->maxsize;
  handle.width = static_cast<std::uint32_t>(GST_VIDEO_FRAME_WIDTH(&frame));
  handle.height = static_cast<std::uint32_t>(GST_VIDEO_FRAME_HEIGHT(&frame));
  handle.planeCount = 2;
  for (unsigned plane = 0; plane < 2; ++plane) {
    handle.planes[plane] = {GST_VIDEO_FRAME_PLANE_OFFSET(&frame, plane),
                            static_cast<std::uint32_t>(GST_VIDEO_FRAME_PLANE_STRIDE(&frame, plane)),
                            handle.width, handle.height >> plane};
  }
  return handle;
}

// A pipeline, and the element of it that is called `name`.
struct Running {
  Running(const std::string& description, const char* name) {
    pipeline.reset(gst_parse_launch(description.c_str(), nullptr));
    element.reset(gst_bin_get_by_name(GST_BIN(pipeline.get()), name));
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
  }
  ~Running() { gst_element_set_state(pipeline.get(), GST_STATE_NULL); }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;

  media_backend::GstPtr<GstElement> pipeline;
  media_backend::GstPtr<GstElement> element;
};

TEST_F(VividCamera, ItsDmaBufsAreEncodedWithoutACopy) {
  std::string error;
  ASSERT_TRUE(simulated_board::registerElements(nullptr, "imx", error)) << error;
  const GstVideoBackend backend(imxProfile());
  const Running camera("v4l2src io-mode=dmabuf device=" + Vivid::device() +
                           " ! video/x-raw,format=NV12,width=640,height=360,framerate=10/1 "
                           "! appsink name=sink max-buffers=1 drop=true",
                       "sink");
  const Running encoder("appsrc name=src format=time " + backend.inputConversionChain("bt709") +
                            backend.transportEncoderChain(
                                {GstVideoBackend::Codec::H264, 4000000, 1, 1, 15, 15}, "-1") +
                            "! openh264dec ! videoconvert ! video/x-raw,format=NV12 ! appsink "
                            "name=decoded sync=false",
                        "src");
  g_autoptr(GstElement) decoded = gst_bin_get_by_name(GST_BIN(encoder.pipeline.get()), "decoded");
  ASSERT_TRUE(
      backend.setInputCaps(GST_APP_SRC(encoder.element.get()), 640, 360, 10, true, nullptr));

  std::vector<std::shared_ptr<lumora::LumoraPicture>> sent;
  for (int i = 0; i < 3; ++i) {
    const std::shared_ptr<GstSample> sample(
        gst_app_sink_pull_sample(GST_APP_SINK(camera.element.get())), gst_sample_unref);
    ASSERT_NE(sample, nullptr);
    GstVideoInfo info;
    GstVideoFrame frame;
    gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get()));
    ASSERT_TRUE(
        gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample.get()), GST_MAP_READ));
    const lumora::FrameExportHandle handle = exportHandle(frame);
    sent.push_back(lumora::LumoraPicture::fromNv12Host(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0), 640,
                                                       360, handle.planes[0].stride));
    gst_video_frame_unmap(&frame);
    EXPECT_EQ(fs::read_symlink("/proc/self/fd/" + std::to_string(handle.fd)), "/dmabuf:");
    GstBuffer* const buffer = backend.wrapFrame(handle, sample);
    ASSERT_NE(buffer, nullptr);
    GST_BUFFER_PTS(buffer) = static_cast<GstClockTime>(i) * GST_SECOND / 10;
    gst_app_src_push_buffer(GST_APP_SRC(encoder.element.get()), buffer);
  }
  gst_app_src_end_of_stream(GST_APP_SRC(encoder.element.get()));
  for (const auto& picture : sent) {
    g_autoptr(GstSample) sample = gst_app_sink_pull_sample(GST_APP_SINK(decoded));
    ASSERT_NE(sample, nullptr);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ));
    ASSERT_EQ(map.size, 640U * 360 * 3 / 2);
    EXPECT_GT(psnr(map.data, *picture), 30);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
}

}  // namespace
