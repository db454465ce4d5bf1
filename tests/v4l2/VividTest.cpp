// The V4L2 source on the kernel's virtual camera.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <vector>

#include <gmock/gmock.h>
#include <gst/allocators/gstdmabuf.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <media_backend/GstVideoBackend.h>
#include <media_backend/V4l2FrameSource.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/MovingPicture.h"
#include "support/Pipeline.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"

namespace {

namespace fs = std::filesystem;
using media_backend::GstVideoBackend;
using media_backend::V4l2FrameSource;
using media_backend::V4l2FrameSourceConfig;
using testing::StartsWith;
using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

constexpr auto kLong = 30s;  // no healthy capture takes as long, not even on an emulated CPU
const fs::path kDriver = "/sys/bus/platform/drivers/vivid";

// Such as /dev/video0; empty while it is unplugged.
std::string device() {
  std::error_code unplugged;
  for (const auto& entry : fs::directory_iterator(kDriver / "vivid.0/video4linux", unplugged)) {
    return "/dev/" + entry.path().filename().string();
  }
  return "";
}

class VividCamera : public testing::Test {
 protected:
  void SetUp() override {
    if (device().empty()) {
      GTEST_SKIP() << "the kernel has no vivid camera here; scripts/test-v4l2 has one";
    }
    // A stopped v4l2src of GStreamer 1.22 closes the device only if it waits for its buffers.
    setenv("GST_V4L2_FORCE_DRAIN", "1", 1);
  }

  static V4l2FrameSourceConfig config() { return {device(), 320, 180, 10}; }

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

TEST_F(VividCamera, ShowsTheDriversColourBars) {
  for (const unsigned width : {640U, 322U}) {
    const unsigned height = width / 16 * 9 & ~1U;
    const auto picture = capture({device(), width, height, 5});
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(picture->width(), width);
    EXPECT_EQ(picture->height(), height);
    const std::uint8_t* const row = picture->luma();
    const auto [darkest, brightest] = std::minmax_element(row, row + width);
    EXPECT_GT(*brightest - *darkest, 100);
  }
}

TEST_F(VividCamera, SaysThatAnotherHasTheDevice) {
  ASSERT_NE(capture(config()), nullptr) << error_;
  V4l2FrameSource other;
  EXPECT_THAT(awaitError(other, config()), StartsWith("Device '" + device() + "' is busy ("));
  EXPECT_NE(capture(config()), nullptr) << error_;
  source_.stop();
  EXPECT_NE(other.capture(config(), kLong, error_), nullptr) << error_;
}

TEST_F(VividCamera, ComesBackAfterItWasUnplugged) {
  const V4l2FrameSourceConfig config = VividCamera::config();
  ASSERT_NE(capture(config), nullptr) << error_;
  const std::ptrdiff_t descriptors = openDescriptors();
  std::ofstream(kDriver / "unbind") << "vivid.0";
  EXPECT_THAT(awaitError(source_, config), StartsWith("Could not read from resource. ("));
  EXPECT_LT(openDescriptors(), descriptors);
  EXPECT_EQ(capture(config), nullptr);
  EXPECT_THAT(error_, StartsWith("Cannot identify device '" + config.device + "'."));
  std::ofstream(kDriver / "bind") << "vivid.0";
  ASSERT_EQ(device(), config.device);
  EXPECT_NE(capture(config), nullptr) << error_;
  EXPECT_EQ(openDescriptors(), descriptors);
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

TEST_F(VividCamera, ItsDmaBufsAreEncodedWithoutACopy) {
  std::string error;
  ASSERT_TRUE(simulated_board::registerElements(nullptr, "imx", error)) << error;
  const GstVideoBackend backend(imxProfile());
  Pipeline camera("v4l2src io-mode=dmabuf device=" + device() +
                  " ! video/x-raw,format=NV12,width=640,height=360,framerate=10/1 "
                  "! appsink name=out max-buffers=1 drop=true");
  Pipeline encoder(
      "appsrc name=in format=time " + backend.inputConversionChain("bt709") +
      backend.transportEncoderChain({GstVideoBackend::Codec::H264, 4000000, 1, 1, 15, 15}, "-1") +
      "! openh264dec ! videoconvert ! video/x-raw,format=NV12 ! appsink name=out "
      "sync=false");
  ASSERT_TRUE(backend.setInputCaps(encoder.source(), 640, 360, 10, true, nullptr));

  std::vector<std::shared_ptr<lumora::LumoraPicture>> sent;
  for (int i = 0; i < 3; ++i) {
    const std::shared_ptr<GstSample> sample(camera.pull(), gst_sample_unref);
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
    encoder.push(buffer);
  }
  encoder.finish();
  for (const auto& picture : sent) {
    g_autoptr(GstSample) sample = encoder.pull();
    ASSERT_NE(sample, nullptr);
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(gst_sample_get_buffer(sample), &map, GST_MAP_READ));
    ASSERT_EQ(map.size, 640U * 360 * 3 / 2);
    EXPECT_GT(psnr(map.data, *picture), 30);
    gst_buffer_unmap(gst_sample_get_buffer(sample), &map);
  }
}

}  // namespace
