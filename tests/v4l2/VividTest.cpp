// The V4L2 source on the kernel's virtual camera.

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <media_backend/V4l2FrameSource.h>

#include "support/ProcessState.h"

namespace {

namespace fs = std::filesystem;
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

}  // namespace
