// The V4L2 source on a stand-in for its element, which shows frames and fails on command: after
// each step everything has arrived, so that no test waits.

#include <chrono>
#include <limits>
#include <optional>
#include <thread>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/V4l2FrameSource.h>

#include "StandInCamera.h"
#include "support/InterposedParse.h"
#include "support/ProcessState.h"

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
const std::string kCameraCaps = "video/x-raw,format=NV12,width=64,height=32,framerate=";

// Leaves a message as an element does, whose text is the message and `debug`, if not null.
void post(GstElement* element, GstMessageType type, const char* debug) {
  g_autoptr(GError) cause =
      g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "no more");
  GstObject* const from = GST_OBJECT(element);
  gst_element_post_message(
      element, type == GST_MESSAGE_ERROR     ? gst_message_new_error(from, cause, debug)
               : type == GST_MESSAGE_WARNING ? gst_message_new_warning(from, cause, debug)
                                             : gst_message_new_info(from, cause, debug));
}

class V4l2Source : public testing::Test {
 protected:
  void SetUp() override {
    media_backend::gst_source::ensure_initialized();
    camera().offer(kCameraCaps + "30/1");
    camera().onOpen(nullptr);
  }
  void TearDown() override {
    g_otherDescription = nullptr;
    g_stateChangeFails = false;
  }

  static StandInCamera& camera() { return StandInCamera::instance(); }

  // The number of the frame that is there, kNoFrame if there is none.
  int next(const V4l2FrameSourceConfig& config, std::chrono::nanoseconds timeout = 0ns) {
    const auto picture = source_.capture(config, timeout, error_);
    return picture == nullptr ? kNoFrame : picture->luma()[0];
  }

  // Starts anew if nothing runs.
  void expectWorks(const V4l2FrameSourceConfig& config) {
    EXPECT_EQ(next(config), kNoFrame);
    EXPECT_EQ(error_, "");
    number_ += 301;  // more than the ten seconds of the least rate
    camera().show(number_);
    EXPECT_EQ(next(config), number_ % 256);
  }

  const V4l2FrameSourceConfig config_ = {"/dev/video7", 64, 32, 30};
  V4l2FrameSource source_;
  std::string error_;
  int number_ = 0;  // of the frame that expectWorks() took last
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
  camera().offer(kCameraCaps + "240/1");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.caps);
    EXPECT_EQ(next(row.config), kNoFrame);
    EXPECT_EQ(g_description, before + row.caps + after);
    EXPECT_EQ(camera().device(), row.config.device);
    camera().show(1);
    const auto picture = source_.capture(row.config, 0s, error_);
    ASSERT_NE(picture, nullptr) << error_;
    EXPECT_EQ(picture->width(), row.width);
    EXPECT_EQ(picture->height(), row.height);
  }
}

TEST_F(V4l2Source, StartsAgainOnlyForAnotherConfiguration) {
  using Config = V4l2FrameSourceConfig;
  const struct {
    const char* name;
    double fps;
    void (*change)(Config&);
    bool restarts;
  } rows[] = {
      {"nothing", 30, [](Config&) {}, false},
      {"width that rounds to the same", 30, [](Config& c) { c.width = 65; }, false},
      {"height that rounds to the same", 30, [](Config& c) { c.height = 33; }, false},
      {"rate within a millionth", 30, [](Config& c) { c.fps += 0.9e-6; }, false},
      {"rate beyond a millionth", 30, [](Config& c) { c.fps -= 1.1e-6; }, true},
      {"rates above the most", 300, [](Config& c) { c.fps = 240; }, false},
      {"rates below the least", -1, [](Config& c) { c.fps = 0.1; }, false},
      {"width", 30, [](Config& c) { c.width = 62; }, true},
      {"height", 30, [](Config& c) { c.height = 30; }, true},
      {"spelling of the device", 30, [](Config& c) { c.device = "/dev/./video7"; }, true},
  };
  camera().offer(kCameraCaps + "240/1");
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    source_.stop();
    Config config = config_;
    config.fps = row.fps;
    expectWorks(config);
    const int starts = camera().starts();
    row.change(config);
    expectWorks(config);
    EXPECT_EQ(camera().starts() - starts, row.restarts ? 1 : 0);
  }
  const int starts = camera().starts();
  source_.stop();
  source_.stop();
  expectWorks(config_);
  EXPECT_EQ(camera().starts() - starts, 1);
}

TEST_F(V4l2Source, HearsErrorsAndWarningsOnceTheFramesAreTaken) {
  const struct {
    GstMessageType type;
    const char* debug;
    const char* error;
  } rows[] = {{GST_MESSAGE_ERROR, "at once", "no more (at once)"},
              {GST_MESSAGE_ERROR, nullptr, "no more"},
              {GST_MESSAGE_WARNING, "at once", "no more (at once)"},
              {GST_MESSAGE_WARNING, nullptr, "no more"},
              {GST_MESSAGE_INFO, "at once", ""},
              {GST_MESSAGE_EOS, nullptr, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(gst_message_type_get_name(row.type));
    source_.stop();
    expectWorks(config_);
    const int starts = camera().starts();
    camera().show(number_ + 1);
    // A source that fails says so, and then its base class again.
    camera().perform([&row](GstElement* source, GstBuffer**) {
      if (row.type == GST_MESSAGE_EOS) {
        return GST_FLOW_EOS;
      }
      post(source, row.type, row.debug);
      return row.type == GST_MESSAGE_ERROR ? GST_FLOW_ERROR : GST_FLOW_CUSTOM_SUCCESS;
    });
    EXPECT_EQ(next(config_), (number_ + 1) % 256);
    EXPECT_EQ(error_, "");
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, row.error);
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, "");
    EXPECT_EQ(camera().starts() - starts, *row.error != '\0' ? 1 : 0);
  }
}

TEST_F(V4l2Source, SaysWhyItDoesNotStart) {
  const struct {
    GstMessageType posts;  // GST_MESSAGE_UNKNOWN: nothing
    bool opens;
    const char* error;
  } rows[] = {
      {GST_MESSAGE_ERROR, false, "no more (busy)"},
      {GST_MESSAGE_WARNING, false, "no more (busy)"},
      {GST_MESSAGE_UNKNOWN, false, "failed to start GStreamer pipeline"},
      {GST_MESSAGE_ERROR, true, "no more (busy)"},
      {GST_MESSAGE_UNKNOWN, true, "GStreamer pipeline failed during state change"},
  };
  for (const auto& row : rows) {
    camera().onOpen([&row](GstElement* source) {
      if (row.posts != GST_MESSAGE_UNKNOWN) {
        post(source, row.posts, "busy");
      }
      return row.opens;
    });
    g_stateChangeFails = row.opens;
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, row.error);
    g_stateChangeFails = false;
    camera().onOpen(nullptr);
    expectWorks(config_);
    source_.stop();
  }
}

TEST_F(V4l2Source, NamesWhatItCannotBuild) {
  const std::pair<const char*, const char*> rows[] = {
      {"", "failed to create GStreamer pipeline"},
      {"no_such_element", "no element \"no_such_element\""},
      {"fakesrc ! appsink name=simu_v4l_sink", "GStreamer v4l2src not found"},
      {"v4l2src name=simu_v4l_src ! fakesink", "GStreamer appsink not found"},
  };
  for (const auto& [description, error] : rows) {
    g_otherDescription = description;
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, error);
    g_otherDescription = nullptr;
    expectWorks(config_);
    EXPECT_EQ(next({}), kNoFrame);
    EXPECT_EQ(error_, "empty V4L device path");
  }
}

TEST_F(V4l2Source, RunsOnAfterAFrameThatIsNoPicture) {
  g_otherDescription =
      "v4l2src name=simu_v4l_src ! appsink name=simu_v4l_sink sync=false async=false";
  camera().offer("video/x-raw,format=GRAY8,width=64,height=32,framerate=30/1");
  EXPECT_EQ(next(config_), kNoFrame);
  const int starts = camera().starts();
  for (int number = 0; number < 3; ++number) {
    camera().show(number);
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, "GStreamer sample is not NV12");
  }
  EXPECT_EQ(camera().starts(), starts);
}

TEST_F(V4l2Source, TwoHundredStartsLeaveNothingBehind) {
  const auto startOften = [this](int times) {
    for (int i = 0; i < times; ++i) {
      std::optional<V4l2FrameSource> another;
      V4l2FrameSource& source = i % 2 == 0 ? source_ : another.emplace();
      EXPECT_EQ(source.capture(config_, 0s, error_), nullptr);
      camera().show(1);
      EXPECT_NE(source.capture(config_, 0s, error_), nullptr);
      if (i % 4 == 3) {  // goes by its own error, not with its owner
        camera().perform([](GstElement* element, GstBuffer**) {
          post(element, GST_MESSAGE_ERROR, nullptr);
          return GST_FLOW_ERROR;
        });
        EXPECT_EQ(source.capture(config_, 0s, error_), nullptr);
        EXPECT_EQ(error_, "no more");
      }
      source_.stop();
    }
  };
  std::thread([] {}).join();  // a sanitizer may keep a thread of its own from the first one on
  const std::ptrdiff_t threads = runningThreads();
  g_thread_pool_set_max_unused_threads(0);
  startOften(200);  // what GStreamer sets up for the process, 1.26 over many starts
  const std::ptrdiff_t descriptors = openDescriptors();
  const std::size_t allocated = allocatedBytes();
  startOften(200);
  EXPECT_EQ(openDescriptors(), descriptors);
  EXPECT_TRUE(threadsSettle(threads)) << runningThreads() << " threads, not " << threads;
  EXPECT_LT(allocatedBytes(), allocated + std::size_t{200} * 100);
}

}  // namespace
