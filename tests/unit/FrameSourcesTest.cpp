// What the two sources on GStreamer do alike, each on a pipeline of its own source and sink, whose
// frames and messages come from the test.

#include <chrono>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <utility>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/V4l2FrameSource.h>

#include "StandInCamera.h"
#include "support/Interpose.h"
#include "support/InterposedParse.h"
#include "support/ProcessState.h"

namespace {
bool g_outOfMemory = false;
}  // namespace

std::shared_ptr<lumora::LumoraPicture> lumora::LumoraPicture::fromNv12Host(const void* data,
                                                                           unsigned width,
                                                                           unsigned height,
                                                                           unsigned stride) {
  static auto* const real =
      nextDefinition<decltype(fromNv12Host)>("_ZN6lumora13LumoraPicture12fromNv12HostEPKvjjj");
  return g_outOfMemory ? throw std::bad_alloc() : real(data, width, height, stride);
}

namespace {

using std::chrono_literals::operator""ns;
using std::chrono_literals::operator""s;

using Config = media_backend::MediaFileFrameSourceConfig;  // of a camera: path is its device
using Picture = std::shared_ptr<lumora::LumoraPicture>;

struct FrameSource {
  std::function<Picture(const Config&, std::chrono::nanoseconds, std::string& error)> capture;
  std::function<void()> stop;
};

FrameSource makeFile() {
  const auto file = std::make_shared<media_backend::MediaFileFrameSource>();
  return {[file](auto&&... call) { return file->capture(call...); }, [file] { file->stop(); }};
}

FrameSource makeCamera() {
  const auto camera = std::make_shared<media_backend::V4l2FrameSource>();
  return {[camera](const Config& config, auto&&... call) {
            return camera->capture({config.path, config.width, config.height, config.fps}, call...);
          },
          [camera] { camera->stop(); }};
}

struct Kind {
  const char* name;
  FrameSource (*make)();
  std::string source;  // of its description
  std::string sink;
  const char* noPipeline;
  const char* noSource;
  const char* noPath;
  bool hearsWarnings;
};

void PrintTo(const Kind& kind, std::ostream* out) {
  *out << kind.name;
}

const Kind kKinds[] = {
    {"File", makeFile, "filesrc name=simu_file_src ! fakesink async=false ",
     "appsink name=simu_file_sink async=false ", "failed to create media file GStreamer pipeline",
     "GStreamer filesrc not found", "empty media file path", false},
    {"Camera", makeCamera, "v4l2src name=simu_v4l_src ! fakesink async=false ",
     "appsink name=simu_v4l_sink async=false ", "failed to create GStreamer pipeline",
     "GStreamer v4l2src not found", "empty V4L device path", true},
};

constexpr int kNoFrame = -1;
constexpr auto kLong = 60s;  // no healthy capture takes as long
constexpr const char* kCaps = "video/x-raw,format=NV12,width=64,height=32,framerate=30/1";

class FrameSources : public testing::TestWithParam<Kind> {
 protected:
  void SetUp() override {
    media_backend::gst_source::ensure_initialized();
    StandInCamera::instance();
    g_otherDescription = description_.c_str();
  }
  void TearDown() override { g_otherDescription = nullptr; }

  int next(const Config& config, std::chrono::nanoseconds timeout = 0ns) {
    const auto picture = source_.capture(config, timeout, error_);
    return picture == nullptr ? kNoFrame : picture->luma()[0];
  }

  // Sends a frame down the pipeline that runs.
  static void show(int luma, gsize size = 64 * 32 * 3 / 2) {
    g_autoptr(GstElement) feed = gst_bin_get_by_name(GST_BIN(g_pipeline), "feed");
    GstBuffer* const buffer = gst_buffer_new_allocate(nullptr, size, nullptr);
    gst_buffer_memset(buffer, 0, static_cast<guint8>(luma), size);
    gst_app_src_push_buffer(GST_APP_SRC(feed), buffer);
  }

  static void post(GstMessageType type, const char* debug) {
    GstObject* const from = GST_OBJECT(g_pipeline);
    g_autoptr(GError) cause =
        g_error_new_literal(GST_RESOURCE_ERROR, GST_RESOURCE_ERROR_READ, "no more");
    gst_element_post_message(
        g_pipeline, type == GST_MESSAGE_ERROR     ? gst_message_new_error(from, cause, debug)
                    : type == GST_MESSAGE_WARNING ? gst_message_new_warning(from, cause, debug)
                    : type == GST_MESSAGE_INFO    ? gst_message_new_info(from, cause, debug)
                                                  : gst_message_new_eos(from));
  }

  // Calls once more and returns how many pipelines were built for it.
  int startsOf(const Config& config) {
    const int before = g_parses;
    EXPECT_EQ(next(config), kNoFrame);
    EXPECT_EQ(error_, "");
    return g_parses - before;
  }

  const Kind& kind_ = GetParam();
  const std::string description_ =
      kind_.source + "appsrc name=feed caps=\"" + kCaps + "\" ! " + kind_.sink + "sync=false";
  const Config config_ = {"/proc/self/stat", 64, 32, 30, false};
  const FrameSource source_ = kind_.make();
  std::string error_;
};

INSTANTIATE_TEST_SUITE_P(Kinds, FrameSources, testing::ValuesIn(kKinds),
                         [](const auto& kind) { return kind.param.name; });

TEST_P(FrameSources, StartAgainOnlyForAnotherConfiguration) {
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
      {"spelling of the path", 30, [](Config& c) { c.path.insert(0, "/."); }, true},
      {"loop", 30, [](Config& c) { c.loop = true; }, kind_.name == std::string("File")},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    source_.stop();
    Config config = config_;
    config.fps = row.fps;
    EXPECT_EQ(startsOf(config), 1);
    row.change(config);
    EXPECT_EQ(startsOf(config), row.restarts ? 1 : 0);
  }
}

TEST_P(FrameSources, NameWhatTheyCannotBuild) {
  const std::pair<std::string, const char*> rows[] = {
      {"", kind_.noPipeline},
      {"no_such_element", "no element \"no_such_element\""},
      {"fakesrc ! " + kind_.sink, kind_.noSource},
      {kind_.source, "GStreamer appsink not found"},
  };
  for (const auto& [description, error] : rows) {
    g_otherDescription = description.c_str();
    EXPECT_EQ(next(config_), kNoFrame);
    EXPECT_EQ(error_, error);
    g_otherDescription = description_.c_str();
    EXPECT_EQ(startsOf(config_), 1);
    EXPECT_EQ(next({}), kNoFrame);
    EXPECT_EQ(error_, kind_.noPath);
  }
}

TEST_P(FrameSources, HearWhatConcernsThemOnceTheFramesAreTaken) {
  const struct {
    GstMessageType type;
    const char* debug;
    std::string error;
  } rows[] = {{GST_MESSAGE_ERROR, "at once", "no more (at once)"},
              {GST_MESSAGE_ERROR, nullptr, "no more"},
              {GST_MESSAGE_WARNING, "at once", kind_.hearsWarnings ? "no more (at once)" : ""},
              {GST_MESSAGE_WARNING, nullptr, kind_.hearsWarnings ? "no more" : ""},
              {GST_MESSAGE_INFO, "at once", ""},
              {GST_MESSAGE_EOS, nullptr, ""}};
  for (const auto& row : rows) {
    SCOPED_TRACE(gst_message_type_get_name(row.type));
    source_.stop();
    EXPECT_EQ(startsOf(config_), 1);
    show(7);
    post(row.type, row.debug);
    if (row.error.empty() && row.type != GST_MESSAGE_EOS) {
      EXPECT_FALSE(gst_bus_have_pending(GST_ELEMENT_BUS(g_pipeline)));  // or it grows for years
    }
    EXPECT_EQ(next(config_, kLong), 7);
    EXPECT_EQ(error_, "");
    EXPECT_EQ(next(config_, -kLong), kNoFrame);
    EXPECT_EQ(error_, row.error);
    EXPECT_EQ(startsOf(config_), row.error.empty() ? 0 : 1);
  }
}

TEST_P(FrameSources, RunOnAfterAFrameThatIsNoPictureButNotWithoutMemory) {
  EXPECT_EQ(startsOf(config_), 1);
  show(1, 7);
  EXPECT_EQ(next(config_, kLong), kNoFrame);
  EXPECT_EQ(error_, "GStreamer NV12 buffer is shorter than its caps layout");
  EXPECT_EQ(startsOf(config_), 0);
  show(2);
  g_outOfMemory = true;
  EXPECT_THROW(next(config_, kLong), std::bad_alloc);
  g_outOfMemory = false;
  EXPECT_EQ(startsOf(config_), 1);
}

TEST_P(FrameSources, TwoHundredStartsLeaveNothingBehind) {
  const auto startOften = [this](int times) {
    for (int i = 0; i < times; ++i) {
      const FrameSource source = i % 2 == 0 ? source_ : kind_.make();
      EXPECT_EQ(source.capture(config_, 0s, error_), nullptr);
      show(1);
      EXPECT_NE(source.capture(config_, kLong, error_), nullptr);
      if (i % 4 == 3) {  // goes by its own error, not with its owner
        post(GST_MESSAGE_ERROR, nullptr);
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
  EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors() << ", not " << descriptors;
  EXPECT_TRUE(threadsSettle(threads)) << runningThreads() << " threads, not " << threads;
  EXPECT_TRUE(settles([allocated] {
    return allocatedBytes() < allocated + std::size_t{200} * 100;
  })) << allocatedBytes()
      << " bytes, not " << allocated;
}

}  // namespace
