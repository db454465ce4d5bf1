// The media file source on real files. Every frame shows its own number as bright and dark stripes,
// so that order and repetition are exact.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <thread>
#include <tuple>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <media_backend/MediaFileFrameSource.h>
#include <simulated_board/SimulatedBoard.h>

#include "support/Clip.h"
#include "support/InterposedParse.h"
#include "support/TempFolder.h"

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

// A clip of kFrames numbered frames with sound, unless ffmpeg's `options` say otherwise.
void makeNumberedClip(const std::string& path, const std::string& size,
                      const std::vector<std::string>& options) {
  const std::string stripes = "geq=lum=if(bitand(N\\,pow(2\\,floor(X*6/W)))\\,235\\,16)";
  std::vector<std::string> all = {
      "-f", "lavfi", "-i",  "sine",
      "-t", "0.34",  "-vf", "format=yuv420p," + stripes + ":cb=128:cr=128"};
  all.insert(all.end(), options.begin(), options.end());
  makeClip(path, size, 30, kFrames, all);
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
  void TearDown() override { g_otherDescription = nullptr; }

  MediaFileFrameSourceConfig clip(const std::string& name = "clip.mp4",
                                  const std::vector<std::string>& options = {"-an"}) {
    const std::string path = folder_ / name;
    if (!fs::exists(path)) {
      makeNumberedClip(path, "192x64", options);
    }
    return {path, 192, 64, 30, true};
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
};

TEST_F(MediaFile, PlaysWhateverCanBeDecoded) {
  const std::tuple<const char*, const char*, std::vector<std::string>> rows[] = {
      {"odd.mkv", "191x63", {"-an", "-c:v", "ffv1"}},
      {"large.mp4", "640x360", {"-an", "-bf", "2"}},
      {"sound after.mp4", "192x64", {"-map", "0", "-map", "1", "-c:a", "aac"}},
      {"sound first.mkv", "192x64", {"-map", "1", "-map", "0", "-c:a", "flac"}},
      {"it's \"the\" 100% clip! name=x .mp4", "192x64", {"-an"}},
  };
  for (const auto& [name, size, options] : rows) {
    SCOPED_TRACE(name);
    const MediaFileFrameSourceConfig config = {folder_ / name, 193, 65, 30, false};
    makeNumberedClip(config.path, size, options);
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

TEST_F(MediaFile, StaysAtItsEndUnlessItLoops) {
  MediaFileFrameSourceConfig config = clip();
  config.loop = false;
  expectFrames(config, 0, kFrames);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(next(config, std::chrono::hours(24)), kNoFrame);
    EXPECT_EQ(error_, "");
  }
  config.loop = true;
  for (int round = 0; round < 3; ++round) {
    expectFrames(config, 0, kFrames);
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
}

TEST_F(MediaFile, SaysWhyAFileCannotBePlayed) {
  std::ofstream(folder_ / "text.mp4") << std::string(20000, 'x');
  std::ofstream(folder_ / "nothing.mp4") << "";
  fs::create_directory(folder_ / "folder.mp4");
  // Grey pixels, of which there are none or four. GStreamer cannot live without their 4 GiB.
  const std::string_view huge(
      "\x89PNG\r\n\x1a\n\0\0\0\x0dIHDR\0\0\xff\xff\0\0\xff\xff\x08\0\0\0\0\x93\x6e\x86\x8c"
      "\0\0\0\x09IDAT\x78\x9c\x63\0\0\0\1\0\1\x5e\xff\x7d\xf9\0\0\0\0IEND\xae\x42\x60\x82",
      66);
  std::ofstream(folder_ / "huge.mp4") << huge;
  std::ofstream(folder_ / "text.pgm") << "P2\n65500 65500\n255\n1 2 3 4\n";
  const MediaFileFrameSourceConfig good = clip();
  const std::pair<const char*, const char*> rows[] = {
      {"text.mp4", "This appears to be a text file ("},
      {"nothing.mp4", "Stream contains no data. ("},
      {"folder.mp4", "is a directory. ("},
      {"huge.mp4", "pictures of 65535 x 65535 are too large"},
      {"text.pgm", "pictures of 65500 x 65500 are too large"}};
  for (const auto& [name, reason] : rows) {
    SCOPED_TRACE(name);
    MediaFileFrameSourceConfig bad = good;
    bad.path = folder_ / name;
    error_.clear();
    for (int tries = 0; tries < 100 && error_.empty(); ++tries) {
      EXPECT_EQ(next(bad, 200ms), kNoFrame);
    }
    EXPECT_THAT(error_, HasSubstr(reason));
    expectFrames(good, 0, 2);
  }
}

TEST_F(MediaFile, ThrowsIfThePathCannotBeLookedUp) {
  const MediaFileFrameSourceConfig config = clip();
  expectFrames(config, 0, 2);
  MediaFileFrameSourceConfig bad = config;
  bad.path = folder_ / std::string(300, 'x');
  EXPECT_THROW(next(bad), fs::filesystem_error);
  expectFrames(config, 2, 4);  // nothing was changed
}

TEST_F(MediaFile, ConvertsInHardwareWhereThereIsAny) {
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

// A busy streaming thread posts its error when the change of state has failed already.
TEST_F(MediaFile, WaitsForTheReasonOfAFailedStart) {
  const MediaFileFrameSourceConfig config = clip();
  g_otherDescription =
      "filesrc name=simu_file_src ! fakesink state-error=ready-to-paused appsrc ! "
      "appsink name=simu_file_sink";
  g_onParsed = [] {
    const auto postLate = +[](GstBus* bus, GstMessage* message, gpointer) {
      if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_ERROR) {
        return GST_BUS_PASS;
      }
      gst_object_ref(bus);
      std::thread([bus, message] {
        std::this_thread::sleep_for(300ms);
        gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
        gst_bus_post(bus, message);
        gst_object_unref(bus);
      }).detach();
      return GST_BUS_DROP;
    };
    const auto onLocation = +[](GstElement*, GParamSpec*, gpointer handler) {
      g_autoptr(GstBus) bus = gst_element_get_bus(g_pipeline);
      gst_bus_set_sync_handler(bus, nullptr, nullptr, nullptr);
      gst_bus_set_sync_handler(bus, reinterpret_cast<GstBusSyncHandler>(handler), nullptr, nullptr);
    };
    g_autoptr(GstElement) source = gst_bin_get_by_name(GST_BIN(g_pipeline), "simu_file_src");
    g_signal_connect(source, "notify::location", G_CALLBACK(onLocation),
                     reinterpret_cast<gpointer>(postLate));
  };
  EXPECT_EQ(next(config), kNoFrame);
  EXPECT_THAT(error_, HasSubstr("Erroring out on state change as requested"));
  g_onParsed = nullptr;
}

std::atomic<bool> g_isSinkBusy;
std::atomic<GstElement*> g_busySink;  // holds its lock for its first sample

// Holds the start at "gate" until the sink has its first sample, and the sink while it is busy.
void holdStartAndSink() {
  g_autoptr(GstElement) sink = gst_bin_get_by_name(GST_BIN(g_pipeline), "simu_file_sink");
  g_autoptr(GstElement) gate = gst_bin_get_by_name(GST_BIN(g_pipeline), "gate");
  const auto stayBusy = +[](GstElement* element) {
    g_busySink = element;
    while (g_isSinkBusy) {
      std::this_thread::sleep_for(1ms);
    }
    return GST_FLOW_OK;
  };
  const auto hold = +[] {
    while (g_busySink == nullptr) {
      std::this_thread::sleep_for(1ms);
    }
  };
  g_isSinkBusy = true;
  g_busySink = nullptr;
  g_signal_connect(sink, "new-preroll", G_CALLBACK(stayBusy), nullptr);
  g_signal_connect(gate, "handoff", G_CALLBACK(hold), nullptr);
}

// A start on a busy machine waits for the sink's lock. The sink holds it and waits until its
// samples are taken: in the middle of a buffer list for which it has no room, or at the end of the
// stream.
TEST_F(MediaFile, StopsInTheMiddleOfItsStart) {
  const MediaFileFrameSourceConfig config = clip();
  const std::pair<const char*, const char*> rows[] = {{"-1", "1"}, {"1", "100"}};
  for (const auto* row = std::begin(rows); row != std::end(rows);) {
    SCOPED_TRACE(row->first);
    const std::string description =
        "filesrc name=simu_file_src ! fakesink async=false videotestsrc num-buffers=1 "
        "! identity name=gate signal-handoffs=true ! fakesink videotestsrc num-buffers=" +
        std::string(row->first) +
        " ! video/x-raw,format=UYVY,width=192,height=64 ! rtpvrawpay chunks-per-frame=1 ! queue "
        "! appsink name=simu_file_sink async=false emit-signals=true max-buffers=" +
        row->second;
    g_otherDescription = description.c_str();
    g_onParsed = holdStartAndSink;
    EXPECT_EQ(next(config, 0ms), kNoFrame);
    EXPECT_EQ(error_, "");
    while (g_busySink == nullptr || GST_STATE_PENDING(g_busySink.load()) != GST_STATE_PLAYING) {
      std::this_thread::sleep_for(1ms);
    }
    std::this_thread::sleep_for(20ms);  // the start now waits for the lock
    g_isSinkBusy = false;
    std::this_thread::sleep_for(100ms);
    // The start may get the lock between the last buffer and the end: then once more.
    row += GST_STATE(g_pipeline) == GST_STATE_PLAYING ? 0 : 1;
    source_.stop();
    g_onParsed = nullptr;
    g_otherDescription = nullptr;
    expectFrames(config, 0, 1);
    source_.stop();
  }
}

// All frames are still inside a decoder of this many threads when their end comes. Each one but the
// first is held back and dropped, so that the stop finds the decoder about to negotiate the next.
TEST_F(MediaFile, StopsWhileTheDecoderDrains) {
  const MediaFileFrameSourceConfig config = clip("long delay.mp4", {"-an", "-bf", "16"});
  static std::atomic<bool> isFirst;
  g_onParsed = [] {
    const auto holdBack = +[](GstPad* pad, GstPadProbeInfo*, gpointer) {
      if (isFirst.exchange(false)) {
        return GST_PAD_PROBE_OK;
      }
      std::this_thread::sleep_for(10ms);
      gst_pad_mark_reconfigure(pad);
      return GST_PAD_PROBE_DROP;
    };
    const auto onElement = +[](GstBin*, GstBin*, GstElement* element, gpointer probe) {
      if (g_object_class_find_property(G_OBJECT_GET_CLASS(element), "max-threads") != nullptr) {
        g_object_set(element, "max-threads", 16, nullptr);
        g_autoptr(GstPad) output = gst_element_get_static_pad(element, "src");
        gst_pad_add_probe(output, GST_PAD_PROBE_TYPE_BUFFER,
                          reinterpret_cast<GstPadProbeCallback>(probe), nullptr, nullptr);
      }
    };
    isFirst = true;
    g_signal_connect(g_pipeline, "deep-element-added", G_CALLBACK(onElement),
                     reinterpret_cast<gpointer>(holdBack));
  };
  for (int i = 0; i < 10; ++i) {
    expectFrames(config, 0, 1);
    source_.stop();
  }
  g_onParsed = nullptr;
}

// The sink waits an hour for its time, the decoder for the sink.
TEST_F(MediaFile, StopsWhileTheDecoderWaits) {
  const MediaFileFrameSourceConfig config = clip();
  g_otherDescription =
      "filesrc name=simu_file_src ! fakesink async=false videotestsrc ! jpegenc ! jpegdec ! "
      "appsink name=simu_file_sink async=false sync=true ts-offset=3600000000000";
  EXPECT_EQ(next(config, 100ms), kNoFrame);
  EXPECT_EQ(error_, "");
  source_.stop();
}

TEST_F(MediaFile, PlaysBesideOthers) {
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
  std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
}

}  // namespace
