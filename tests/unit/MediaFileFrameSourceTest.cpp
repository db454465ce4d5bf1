// The media file source on real files. Every frame shows its own number as bright and dark stripes,
// so that order and repetition are exact.

#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <media_backend/GstNv12Sample.h>
#include <media_backend/MediaFileFrameSource.h>
#include <simulated_board/SimulatedBoard.h>
#include <sys/fsuid.h>

#include "support/Command.h"
#include "support/Interpose.h"
#include "support/ProcessState.h"
#include "support/TempFolder.h"

namespace {

std::mutex g_mutex;
std::string g_description;                 // the last one that was parsed
const char* g_otherDescription = nullptr;  // parsed in place of every one, empty for none at all
bool g_keepPipeline = false;
GstElement* g_pipeline = nullptr;  // the last one, if kept

}  // namespace

extern "C" GstElement* gst_parse_launch(const gchar* description, GError** error) {
  static auto* const real = nextDefinition<decltype(gst_parse_launch)>("gst_parse_launch");
  const std::lock_guard<std::mutex> lock(g_mutex);
  g_description = description;
  if (g_otherDescription != nullptr && *g_otherDescription == '\0') {
    return nullptr;
  }
  GstElement* const pipeline =
      real(g_otherDescription != nullptr ? g_otherDescription : description, error);
  if (g_keepPipeline) {
    gst_object_replace(reinterpret_cast<GstObject**>(&g_pipeline), GST_OBJECT(pipeline));
  }
  return pipeline;
}

namespace {

namespace fs = std::filesystem;
using media_backend::MediaFileFrameSource;
using media_backend::MediaFileFrameSourceConfig;
using testing::AnyOf;
using testing::HasSubstr;
using testing::StrEq;
using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;

constexpr auto kLong = 60s;  // no healthy capture takes as long
constexpr int kFrames = 10;
constexpr int kStripes = 6;
constexpr int kNoFrame = -1;

// Writes a clip of kFrames numbered frames; `output` are ffmpeg's options and the file.
void makeClip(const std::string& size, const std::vector<std::string>& output) {
  const std::string stripes = "if(bitand(N\\,pow(2\\,floor(X*6/W)))\\,235\\,16)";
  std::vector<std::string> command = {
      "ffmpeg",    "-v",
      "error",     "-y",
      "-f",        "lavfi",
      "-i",        "color=s=" + size + ":r=30,format=yuv420p,geq=lum=" + stripes + ":cb=128:cr=128",
      "-f",        "lavfi",
      "-i",        "sine=r=48000",
      "-frames:v", std::to_string(kFrames),
      "-t",        "0.34",
      "-bf",       "2"};
  command.insert(command.end(), output.begin(), output.end());
  runCommand(command);
}

int numberIn(const lumora::LumoraPicture& picture) {
  int number = 0;
  for (unsigned stripe = 0; stripe < kStripes; ++stripe) {
    const unsigned x = (2 * stripe + 1) * picture.width() / (2 * kStripes);
    const std::uint8_t luma = picture.luma()[picture.height() / 2 * picture.stride() + x];
    number |= luma > 125 ? 1 << stripe : 0;
  }
  return number;
}

class MediaFile : public testing::Test {
 protected:
  MediaFileFrameSourceConfig clip(const std::string& name = "clip.mp4") {
    MediaFileFrameSourceConfig config;
    config.path = folder_ / name;
    config.width = 192;
    config.height = 64;
    if (!fs::exists(config.path)) {
      makeClip("192x64", {"-map", "0", "-c:v", "libx264", config.path});
    }
    return config;
  }

  // The number of the next frame, kNoFrame if there is none.
  int next(const MediaFileFrameSourceConfig& config, std::chrono::nanoseconds timeout = kLong) {
    const auto picture = source_.capture(config, timeout, error_);
    return picture == nullptr ? kNoFrame : numberIn(*picture);
  }

  void expectFrames(const MediaFileFrameSourceConfig& config, int first, int end) {
    for (int frame = first; frame < end; ++frame) {
      ASSERT_EQ(next(config), frame) << error_;
      ASSERT_EQ(error_, "");
    }
  }

  TempFolder folder_;
  MediaFileFrameSource source_;
  std::string error_;
  std::error_code ignored_;
};

TEST_F(MediaFile, PlaysWhateverCanBeDecoded) {
  const struct {
    const char* name;
    const char* size;
    std::vector<std::string> options;
  } rows[] = {
      {"h264.mp4", "192x64", {"-map", "0", "-c:v", "libx264"}},
      {"h264.mkv", "192x64", {"-map", "0", "-c:v", "libx264"}},
      {"ffv1.mkv", "192x64", {"-map", "0", "-c:v", "ffv1"}},
      {"odd.mkv", "191x63", {"-map", "0", "-c:v", "ffv1"}},
      {"large.mp4", "640x360", {"-map", "0", "-c:v", "libx264"}},
      {"sound after.mp4", "192x64", {"-map", "0", "-map", "1", "-c:v", "libx264", "-c:a", "aac"}},
      {"sound first.mkv", "192x64", {"-map", "1", "-map", "0", "-c:v", "libx264", "-c:a", "flac"}},
      {"it's \"the\" 100% clip! name=x .mp4", "192x64", {"-map", "0", "-c:v", "libx264"}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MediaFileFrameSourceConfig config;
    config.path = folder_ / row.name;
    config.width = 193;
    config.height = 65;
    config.loop = false;
    std::vector<std::string> output = row.options;
    output.push_back(config.path);
    makeClip(row.size, output);
    for (int frame = 0; frame < kFrames; ++frame) {
      const auto picture = source_.capture(config, kLong, error_);
      ASSERT_NE(picture, nullptr) << error_;
      EXPECT_EQ(numberIn(*picture), frame);
      EXPECT_EQ(picture->width(), 192U);
      EXPECT_EQ(picture->height(), 64U);
    }
    EXPECT_EQ(next(config), kNoFrame);
    EXPECT_EQ(error_, "");
  }
}

TEST_F(MediaFile, LoopsFromItsFirstFrame) {
  const MediaFileFrameSourceConfig config = clip();
  for (int round = 0; round < 3; ++round) {
    expectFrames(config, 0, kFrames);
  }
}

TEST_F(MediaFile, StaysAtItsEndUnlessItLoops) {
  MediaFileFrameSourceConfig config = clip();
  config.loop = false;
  expectFrames(config, 0, kFrames);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(next(config, std::chrono::hours(24)), kNoFrame);
    EXPECT_EQ(error_, "");
  }
  config.loop = true;
  expectFrames(config, 0, kFrames);
  expectFrames(config, 0, 1);
}

TEST_F(MediaFile, StartsAgainOnlyForAnotherConfiguration) {
  const struct {
    const char* name;
    void (*change)(MediaFileFrameSourceConfig&);
    bool restarts;
  } rows[] = {
      {"nothing", [](MediaFileFrameSourceConfig&) {}, false},
      {"width that rounds to the same", [](MediaFileFrameSourceConfig& c) { c.width = 193; },
       false},
      {"height that rounds to the same", [](MediaFileFrameSourceConfig& c) { c.height = 65; },
       false},
      {"rate within a millionth", [](MediaFileFrameSourceConfig& c) { c.fps = 0.1 + 1e-7; }, false},
      {"rate below the least", [](MediaFileFrameSourceConfig& c) { c.fps = -7; }, false},
      {"rate", [](MediaFileFrameSourceConfig& c) { c.fps = 0.6; }, true},
      {"width", [](MediaFileFrameSourceConfig& c) { c.width = 194; }, true},
      {"height", [](MediaFileFrameSourceConfig& c) { c.height = 66; }, true},
      {"loop", [](MediaFileFrameSourceConfig& c) { c.loop = false; }, true},
      {"spelling of the path",
       [](MediaFileFrameSourceConfig& c) { c.path.insert(c.path.rfind('/'), "/."); }, true},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    source_.stop();
    MediaFileFrameSourceConfig config = clip();
    config.fps = 0.1;
    expectFrames(config, 0, 2);
    row.change(config);
    expectFrames(config, row.restarts ? 0 : 2, 4);
  }
}

TEST_F(MediaFile, NamesAPathThatIsNotThere) {
  const MediaFileFrameSourceConfig config = clip();
  expectFrames(config, 0, 2);
  fs::rename(config.path, folder_ / "elsewhere");  // while it plays
  EXPECT_EQ(next(config), kNoFrame);
  EXPECT_EQ(error_, "media file does not exist: " + config.path);
  fs::rename(folder_ / "elsewhere", config.path);
  expectFrames(config, 0, 2);
  EXPECT_EQ(next({}), kNoFrame);
  EXPECT_EQ(error_, "empty media file path");
  expectFrames(config, 0, 2);
}

TEST_F(MediaFile, SaysWhyAFileCannotBePlayed) {
  const MediaFileFrameSourceConfig good = clip();
  const struct {
    const char* name;
    std::function<void(const std::string&)> make;
    const char* error;
  } rows[] = {
      {"text.mp4",
       [](const std::string& path) {
         std::ofstream text(path);
         for (int line = 0; line < 500; ++line) {
           text << "Nothing to see in line " << line << ".\n";
         }
       },
       "This appears to be a text file ("},
      {"nothing.mp4", [](const std::string& path) { std::ofstream{path}; },
       "Stream contains no data. ("},
      {"folder.mp4", [](const std::string& path) { fs::create_directory(path); },
       "is a directory. ("},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    MediaFileFrameSourceConfig bad = good;
    bad.path = folder_ / row.name;
    row.make(bad.path);
    for (int i = 0; i < 2; ++i) {
      error_.clear();
      for (int tries = 0; tries < 100 && error_.empty(); ++tries) {
        EXPECT_EQ(next(bad, 200ms), kNoFrame);
      }
      // The state may fail before its reason is on the bus.
      EXPECT_THAT(error_, AnyOf(HasSubstr(row.error),
                                StrEq("media file GStreamer pipeline failed during state change")));
    }
    expectFrames(good, 0, 2);
    source_.stop();
  }
}

// The index of an MP4 file stands at its end. Whether decodebin passes the reason on is chance.
TEST_F(MediaFile, GivesNothingFromAFileWithoutIndex) {
  const MediaFileFrameSourceConfig good = clip();
  MediaFileFrameSourceConfig bad = good;
  bad.path = folder_ / "half.mp4";
  fs::copy_file(good.path, bad.path);
  fs::resize_file(bad.path, fs::file_size(bad.path) / 2);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(next(bad, 100ms), kNoFrame);
  }
  expectFrames(good, 0, 2);
}

TEST_F(MediaFile, PlaysWhatATruncatedFileStillHas) {
  MediaFileFrameSourceConfig config;
  config.path = folder_ / "clip.mkv";
  config.width = 192;
  config.height = 64;
  config.loop = false;
  makeClip("192x64", {"-map", "0", "-c:v", "ffv1", config.path});
  fs::resize_file(config.path, fs::file_size(config.path) / 2);
  int frames = 0;
  for (int seen = next(config); seen != kNoFrame; seen = next(config)) {
    EXPECT_EQ(seen, frames++);
    ASSERT_LT(frames, kFrames);
  }
  EXPECT_GT(frames, 0);
}

TEST_F(MediaFile, ThrowsIfThePathCannotBeLookedUp) {
  const MediaFileFrameSourceConfig config = clip();
  expectFrames(config, 0, 2);
  MediaFileFrameSourceConfig bad = config;
  bad.path = folder_ / std::string(300, 'x');
  EXPECT_THROW(next(bad), fs::filesystem_error);
  expectFrames(config, 2, 4);  // nothing was changed
}

// Root, whom nothing is forbidden, looks the path up as another user.
TEST_F(MediaFile, ThrowsIfAFolderOnTheWayIsForbidden) {
  const MediaFileFrameSourceConfig config = clip();
  const fs::perms usual = fs::status(folder_.path()).permissions();
  fs::permissions(folder_.path(), fs::perms::none);
  const auto user = static_cast<uid_t>(setfsuid(65534));  // of this thread, for files only
  const bool readable = fs::exists(fs::status(config.path, ignored_));
  std::error_code code;
  try {
    next(config);
  } catch (const fs::filesystem_error& error) {
    code = error.code();
  }
  setfsuid(user);
  fs::permissions(folder_.path(), usual);
  if (readable) {
    GTEST_SKIP() << "this user may look into every folder, and may not become another one";
  }
  EXPECT_EQ(code, std::errc::permission_denied);
}

// The pipeline itself, seen as it is parsed.
class MediaFilePipeline : public MediaFile {
 protected:
  void SetUp() override {
    media_backend::gst_source::ensure_initialized();
    g_keepPipeline = true;
  }
  void TearDown() override {
    g_keepPipeline = false;
    g_otherDescription = nullptr;
    gst_clear_object(&g_pipeline);
  }
};

TEST_F(MediaFilePipeline, ConvertsInHardwareWhereThereIsAny) {
  const std::string before =
      "filesrc name=simu_file_src ! decodebin name=simu_file_decode ! queue max-size-buffers=8 ! ";
  const std::string after =
      "! video/x-raw,format=NV12,width=192,height=64 ! appsink name=simu_file_sink "
      "emit-signals=false sync=false async=false max-buffers=2 drop=false";
  const MediaFileFrameSourceConfig config = clip();
  expectFrames(config, 0, kFrames);
  EXPECT_EQ(g_description, before + "videoconvert ! videoscale " + after);
  ASSERT_TRUE(simulated_board::registerElements(nullptr, "nvvidconv", error_)) << error_;
  source_.stop();
  expectFrames(config, 0, kFrames);
  EXPECT_EQ(g_description, before + "nvvidconv " + after);
}

TEST_F(MediaFilePipeline, HearsErrorsButNotWarnings) {
  MediaFileFrameSourceConfig config = clip();
  config.loop = false;
  expectFrames(config, 0, kFrames);
  EXPECT_EQ(next(config), kNoFrame);  // takes the end of the stream off the bus

  g_autoptr(GError) cause = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "boom");
  gst_element_post_message(g_pipeline,
                           gst_message_new_warning(GST_OBJECT(g_pipeline), cause, "not so bad"));
  EXPECT_EQ(next(config), kNoFrame);
  EXPECT_EQ(error_, "");
  for (const char* debug : {static_cast<const char*>(nullptr), "details"}) {
    gst_element_post_message(g_pipeline,
                             gst_message_new_error(GST_OBJECT(g_pipeline), cause, debug));
    EXPECT_EQ(next(config), kNoFrame);
    EXPECT_EQ(error_, debug == nullptr ? "boom" : "boom (details)");
    expectFrames(config, 0, kFrames);  // the failure tore it down
    EXPECT_EQ(next(config), kNoFrame);
  }
}

TEST_F(MediaFilePipeline, NamesWhatItCannotBuild) {
  const MediaFileFrameSourceConfig config = clip();
  const struct {
    const char* description;
    const char* error;
  } rows[] = {
      {"", "failed to create media file GStreamer pipeline"},
      {"no_such_element", "no element \"no_such_element\""},
      {"fakesrc ! appsink name=simu_file_sink", "GStreamer filesrc not found"},
      {"filesrc name=simu_file_src ! fakesink", "GStreamer appsink not found"},
  };
  for (const auto& row : rows) {
    g_otherDescription = row.description;
    EXPECT_EQ(next(config), kNoFrame);
    EXPECT_EQ(error_, row.error);
    g_otherDescription = nullptr;
    expectFrames(config, 0, 1);
    source_.stop();
  }
}

// Here no frame ever comes.
TEST_F(MediaFilePipeline, NegativeTimeoutDoesNotWait) {
  g_otherDescription =
      "filesrc name=simu_file_src ! fakesink async=false appsrc ! "
      "appsink name=simu_file_sink async=false";
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(next(clip(), -5s), kNoFrame);
    EXPECT_EQ(error_, "");
  }
}

TEST_F(MediaFile, RunsManySourcesAtOnce) {
  const MediaFileFrameSourceConfig config = clip();
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&config] {
      MediaFileFrameSource source;
      std::string error;
      for (int n = 0; n < 2 * kFrames + 3; ++n) {
        const auto picture = source.capture(config, kLong, error);
        ASSERT_NE(picture, nullptr) << error;
        EXPECT_EQ(numberIn(*picture), n % kFrames);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

TEST_F(MediaFile, LeavesNoThreadAndNoDescriptorBehind) {
  const MediaFileFrameSourceConfig config = clip();
  const auto playOnce = [&config] {
    std::string error;
    ASSERT_NE(MediaFileFrameSource().capture(config, kLong, error), nullptr) << error;
  };
  std::thread([] {}).join();  // a sanitizer may keep a thread of its own from the first one on
  const std::ptrdiff_t threads = runningThreads();
  playOnce();  // what GStreamer sets up for the process
  g_thread_pool_set_max_unused_threads(0);
  const std::ptrdiff_t descriptors = openDescriptors();
  for (int i = 0; i < 10; ++i) {
    playOnce();
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  // Pool threads end a moment after their last task.
  for (int i = 0; i < 1000 && runningThreads() > threads; ++i) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_LE(runningThreads(), threads);
}

}  // namespace
