// The V4L2 source on a stand-in for its element, which shows frames and fails on command: after
// each step everything has arrived, so that no test waits.

#include <chrono>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/V4l2FrameSource.h>

#include "StandInCamera.h"
#include "support/InterposedParse.h"

namespace {

bool g_stateChangeFails = false;

}  // namespace

extern "C" GstStateChangeReturn gst_element_get_state(GstElement* element, GstState* state,
                                                      GstState* pending, GstClockTime timeout) {
  static auto* const real =
      nextDefinition<decltype(gst_element_get_state)>("gst_element_get_state");
  return g_stateChangeFails ? GST_STATE_CHANGE_FAILURE : real(element, state, pending, timeout);
}

namespace {

using media_backend::V4l2FrameSource;
using media_backend::V4l2FrameSourceConfig;
using std::chrono_literals::operator""ns;
using std::chrono_literals::operator""s;

constexpr int kNoFrame = -1;

class V4l2Source : public testing::Test {
 protected:
  void SetUp() override {
    media_backend::gst_source::ensure_initialized();
    StandInCamera::instance();
  }

  static StandInCamera& camera() { return StandInCamera::instance(); }

  // The number of the frame that is there, kNoFrame if there is none.
  int next(const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout = 0ns) {
    const auto picture = source_.capture(config, timeout, error_);
    return picture == nullptr ? kNoFrame : picture->luma()[0];
  }

  const V4l2FrameSourceConfig config_ = {"/dev/video7", 64, 32, 30};
  V4l2FrameSource source_;
  std::string error_;
};

TEST_F(V4l2Source, GivesTheNewestFrameOnce) {
  EXPECT_EQ(next(config_), kNoFrame);  // nothing has come yet
  EXPECT_EQ(error_, "");
  for (const std::vector<int>& shown : {std::vector<int>{0}, {1, 2, 3, 4, 5, 6, 7, 8}, {9}}) {
    for (const int number : shown) {
      camera().show(number);
    }
    EXPECT_EQ(next(config_, 60s), shown.back());
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(next(config_, -60s), kNoFrame);
    EXPECT_EQ(error_, "");
  }
}

TEST_F(V4l2Source, DropsFramesButNeverRepeatsThem) {
  const struct {
    double fps;
    std::vector<int> shown;
    std::vector<int> expected;
  } rows[] = {{30, {0, 1, 2, 3}, {0, 1, 2, 3}},
              {15, {0, 1, 2, 3, 4}, {0, 2, 4}},
              {10, {0, 1, 2, 3, 4, 5, 6}, {0, 3, 6}},
              {30, {0, 9, 30, 31}, {0, 9, 30, 31}}};
  for (const auto& [fps, shown, expected] : rows) {
    SCOPED_TRACE(fps);
    source_.stop();
    V4l2FrameSourceConfig config = config_;
    config.fps = fps;
    EXPECT_EQ(next(config), kNoFrame);
    std::vector<int> seen;
    for (const int number : shown) {
      camera().show(number);
      for (int frame = next(config); frame != kNoFrame; frame = next(config)) {
        seen.push_back(frame);
      }
    }
    EXPECT_EQ(seen, expected);
  }
}

TEST_F(V4l2Source, AsksForWhatIsConfigured) {
  const std::string before =
      "v4l2src name=simu_v4l_src do-timestamp=true io-mode=2 "
      "! queue max-size-buffers=2 leaky=downstream ! videoconvert ! videoscale "
      "! videorate drop-only=true ! video/x-raw,format=NV12,";
  const std::string after =
      " ! appsink name=simu_v4l_sink emit-signals=false sync=false async=false "
      "max-buffers=1 drop=true";
  const struct {
    V4l2FrameSourceConfig config;
    const char* caps;
    unsigned width;
    unsigned height;
  } rows[] = {
      {{"/dev/it's \"the\" ! camera name=x "}, "width=1280,height=720,framerate=30/1", 1280, 720},
      {{"a", 641, 1, 29.97}, "width=640,height=2,framerate=2997/100", 640, 2},
      {{"a", 0, 33, 0}, "width=2,height=32,framerate=1/10", 2, 32},
      {{"a", 64, 32, 1000}, "width=64,height=32,framerate=240/1", 64, 32},
      {{"a", 64, 32, 12.5}, "width=64,height=32,framerate=25/2", 64, 32},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.caps);
    EXPECT_EQ(next(row.config), kNoFrame);
    EXPECT_EQ(g_description, before + row.caps + after);
    EXPECT_EQ(camera().device, row.config.device);
    camera().show(1);
    const auto picture = source_.capture(row.config, 0s, error_);
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(picture->width(), row.width);
    EXPECT_EQ(picture->height(), row.height);
  }
}

TEST_F(V4l2Source, SaysWhyItDoesNotStart) {
  const struct {
    GstMessageType posts;  // GST_MESSAGE_UNKNOWN: nothing
    bool opens;
    const char* error;
  } rows[] = {
      {GST_MESSAGE_ERROR, false, "no more ("},
      {GST_MESSAGE_WARNING, false, "no more ("},
      {GST_MESSAGE_UNKNOWN, false, "failed to start GStreamer pipeline"},
      {GST_MESSAGE_ERROR, true, "no more ("},
      {GST_MESSAGE_UNKNOWN, true, "GStreamer pipeline failed during state change"},
  };
  for (const auto& row : rows) {
    camera().open = [&row](GstElement* source) {
      if (row.posts == GST_MESSAGE_ERROR) {
        GST_ELEMENT_ERROR(source, RESOURCE, READ, ("no more"), ("busy"));
      } else if (row.posts == GST_MESSAGE_WARNING) {
        GST_ELEMENT_WARNING(source, RESOURCE, READ, ("no more"), ("busy"));
      }
      return row.opens;
    };
    g_stateChangeFails = row.opens;
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_THAT(error_, testing::StartsWith(row.error));
    g_stateChangeFails = false;
    camera().open = nullptr;
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, "");
    source_.stop();
  }
}

}  // namespace
