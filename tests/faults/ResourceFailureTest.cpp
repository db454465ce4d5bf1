// Every allocation of the library in turn fails, and then every descriptor: what a call promises
// for that, nothing left behind, and the same call works afterwards. GLib ends the process when its
// own allocations fail, so it is operator new that fails here.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstVideoBackend.h>
#include <media_backend/MediaFileFrameSource.h>
#include <media_backend/StillImageFrameSource.h>
#include <media_backend/V4l2FrameSource.h>
#include <sys/resource.h>

#include "Torture.h"
#include "support/Clip.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"
#include "support/TempFolder.h"
#include "unit/StandInCamera.h"

namespace {

constexpr int kNever = -1;
thread_local int g_toFail = kNever;  // this thread's allocations before the one that fails
std::atomic<long> g_living = 0;      // blocks

void* allocate(std::size_t size) noexcept {
  if (g_toFail != kNever && g_toFail-- == 0) {
    return nullptr;
  }
  void* const block = std::malloc(size);
  g_living += block != nullptr ? 1 : 0;
  return block;
}

void release(void* block) noexcept {
  g_living -= block != nullptr ? 1 : 0;
  std::free(block);
}

}  // namespace

void* operator new(std::size_t size) {
  void* const block = allocate(size);
  return block != nullptr ? block : throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept {
  return allocate(size);
}
void operator delete(void* block) noexcept {
  release(block);
}
void operator delete(void* block, std::size_t /*size*/) noexcept {
  release(block);
}

namespace {

using media_backend::AudioContinuityGuard;
using media_backend::EncodedAudioFrame;
using media_backend::GstVideoBackend;
using media_backend::MediaFileFrameSource;
using media_backend::StillImageFrameSource;
using media_backend::V4l2FrameSource;
using std::chrono_literals::operator""s;
using std::chrono_literals::operator""ms;
using Codec = GstVideoBackend::Codec;
using Picture = std::shared_ptr<lumora::LumoraPicture>;

constexpr auto kLong = 60s;  // no healthy capture takes as long

// Fails every allocation of `call` in turn; after each run `check` sees whether it threw. Returns
// how many there were.
template <typename Call, typename Check>
int failEach(const Call& call, const Check& check) {
  for (int n = 0;; ++n) {
    bool threw = false;
    g_toFail = n;
    try {
      call();
    } catch (const std::bad_alloc&) {
      threw = true;
    }
    const bool failed = g_toFail == kNever;
    g_toFail = kNever;
    check(threw);
    if (testing::Test::HasFailure()) {
      ADD_FAILURE() << "with allocation " << n << " failed";
      return n;
    }
    if (!failed) {
      return n;
    }
  }
}

// No allocation fails while the object lives: for what a test does between the library's calls.
class Sound {
 public:
  Sound() = default;
  ~Sound() { g_toFail = toFail_; }
  Sound(const Sound&) = delete;
  Sound& operator=(const Sound&) = delete;

 private:
  const int toFail_ = std::exchange(g_toFail, kNever);
};

// Denies every descriptor of `call` in turn, from those that are open on.
int denyEach(const std::function<bool()>& call) {
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const auto limitTo = [&limit](rlim_t descriptors) {
    const rlimit lower = {descriptors, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &lower);
  };
  int denied = 0;
  for (rlim_t most = 3;; ++most, ++denied) {
    limitTo(most);
    const bool succeeded = call();
    limitTo(limit.rlim_cur);
    if (succeeded || testing::Test::HasFailure()) {
      return denied;
    }
  }
}

class ResourceFailure : public testing::Test {
 protected:
  void makeFiles() const {
    makeClip(clip_, "64x32", 30, 3);
    makeClip(image_, "64x32", 30, 1);
    std::ofstream(garbage_) << std::string(4096, 'x');
  }

  static void row(const std::string& what, int times, const char* lost) {
    tortureRow(what, static_cast<unsigned long>(times), "", lost);
  }

  TempFolder folder_;
  const std::string clip_ = folder_ / "a clip with a name that no string holds in itself.mkv";
  const std::string image_ = folder_ / "an image with a name that no string holds in itself.png";
  const std::string garbage_ = folder_ / "no clip, with a name that no string holds in itself.mkv";
  std::string error_;
};

TEST_F(ResourceFailure, WrapFrame) {
  const auto frame = lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));
  const auto keepAlive = std::make_shared<int>();
  for (const auto& profile : {imxProfile(), nvidiaProfile()}) {
    const GstVideoBackend backend(profile);
    gst_buffer_unref(backend.wrapFrame(frame->handle(), nullptr));  // what is made once
    const std::ptrdiff_t descriptors = openDescriptors();
    const long living = g_living;
    GstBuffer* buffer = nullptr;
    int made = 0;
    const int allocations =
        failEach([&] { buffer = backend.wrapFrame(frame->handle(), keepAlive); },
                 [&](bool threw) {
                   EXPECT_FALSE(threw);
                   made += buffer != nullptr ? 1 : 0;
                   gst_clear_buffer(&buffer);
                   EXPECT_EQ(keepAlive.use_count(), 1);
                   EXPECT_EQ(openDescriptors(), descriptors);
                   EXPECT_EQ(g_living, living);
                 });
    EXPECT_EQ(made, 1);
    row(std::string("wrapFrame, ") + backend.name() + ": every allocation fails", allocations,
        "nothing; null");
  }
}

TEST_F(ResourceFailure, Builders) {
  const GstVideoBackend nvidia(nvidiaProfile());
  const GstVideoBackend imx(imxProfile());
  int allocations = 0;
  for (const GstVideoBackend* const backend : {&nvidia, &imx}) {
    GstVideoBackend::EncoderConfig config;
    config.codec = Codec::H264;
    const std::string colorimetry(2000, '1');  // longer than the room that is made at once
    const std::function<std::string()> builders[] = {
        [&] { return backend->inputConversionChain(colorimetry.c_str()); },
        [&] { return backend->transportEncoderChain(config, colorimetry.c_str()); },
        [&] { return backend->rtspPayloaderChain(Codec::H264, 1400); },
        [&] { return backend->httpUploadChain(colorimetry.c_str()); },
        [&] { return backend->httpEncoderChain(config); },
        [&] { return backend->recorderPipeline(config, 60, true, true); },
    };
    for (const auto& builder : builders) {
      const std::string expected = builder();
      const long living = g_living;
      std::string text;
      allocations += failEach([&] { text = builder(); },
                              [&](bool threw) {
                                EXPECT_TRUE(threw || text == expected);
                                std::string().swap(text);
                                EXPECT_EQ(g_living, living);
                              });
    }
  }
  row("the description builders: every allocation fails", allocations, "nothing; std::bad_alloc");
}

TEST_F(ResourceFailure, CodecNamesTakeNoMemory) {
  const std::string text(100, 'H');
  EXPECT_EQ(failEach([&] { EXPECT_EQ(GstVideoBackend::codecFromString(text), Codec::Unknown); },
                     [](bool threw) { EXPECT_FALSE(threw); }),
            0);
}

// A host that tries a call again after it failed, and gets the same track as without the failure.
class Track {
 public:
  using Frames = std::deque<EncodedAudioFrame>;

  // Goes on until the end or until an exception.
  void run() {
    const auto now = AudioContinuityGuard::TimePoint::max();
    for (; step_ < 6; ++step_) {
      switch (step_) {
        case 0:
          guard_.noteReceived(received_, now - 1s);
          break;
        case 1:
        case 4:
          take(guard_.drainReceived());
          break;
        case 2:
          take(guard_.makeFallbackUntil(1'200'000'000, 100, now));
          break;
        case 3:
          guard_.noteReceived(received_, now - 1s);
          break;
        case 5:
          if (const auto frame = guard_.maybeMakeFallback(now)) {
            take(*frame);
          }
          break;
      }
    }
  }

  const std::vector<std::tuple<std::uint64_t, std::size_t>>& frames() const { return frames_; }

 private:
  void take(const Frames& frames) {
    std::for_each(frames.begin(), frames.end(),
                  [this](const EncodedAudioFrame& frame) { take(frame); });
  }
  void take(const EncodedAudioFrame& frame) {
    const Sound memory;
    frames_.emplace_back(frame.ptsNs, frame.sampleRate);
  }

  AudioContinuityGuard guard_;
  const EncodedAudioFrame received_ = {std::vector<std::uint8_t>(100), 1'000'000'000};
  std::vector<std::tuple<std::uint64_t, std::size_t>> frames_;
  int step_ = 0;
};

TEST_F(ResourceFailure, Guard) {
  Track whole;
  whole.run();
  ASSERT_EQ(whole.frames().size(), 13U);
  const long living = g_living;
  std::unique_ptr<Track> track;
  const int allocations = failEach(
      [&] {
        {
          const Sound memory;
          track = std::make_unique<Track>();
        }
        track->run();
      },
      [&](bool /*threw*/) {
        track->run();
        EXPECT_EQ(track->frames(), whole.frames());
        track.reset();
        EXPECT_EQ(g_living, living);
      });
  EXPECT_GT(allocations, 20);
  row("the guard: every allocation fails", allocations,
      "nothing; std::bad_alloc, the same track once the call is repeated");
}

TEST_F(ResourceFailure, MediaFile) {
  makeFiles();
  const media_backend::MediaFileFrameSourceConfig clip = {clip_, 64, 32, 30, true};
  const media_backend::MediaFileFrameSourceConfig garbage = {garbage_, 64, 32, 30, true};
  MediaFileFrameSource source;
  ASSERT_NE(source.capture(clip, kLong, error_), nullptr) << error_;
  source.stop();
  const std::ptrdiff_t descriptors = openDescriptors();

  int allocations = 0;
  for (const int taken : {0, 3}) {  // from the start, and with the file at its end
    Picture picture;
    const auto rewind = [&] {
      const Sound memory;
      source.stop();
      for (int i = 0; i < taken; ++i) {
        EXPECT_NE(source.capture(clip, kLong, error_), nullptr) << error_;
      }
    };
    allocations += failEach(
        [&] {
          rewind();
          picture.reset();
          picture = source.capture(clip, kLong, error_);
        },
        [&](bool threw) {
          EXPECT_TRUE(threw || picture != nullptr) << error_;
          EXPECT_NE(source.capture(clip, kLong, error_), nullptr) << error_;
          source.stop();
          EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors();
        });
  }
  allocations += failEach([&] { EXPECT_EQ(source.capture(garbage, kLong, error_), nullptr); },
                          [&](bool threw) {
                            EXPECT_TRUE(threw || !error_.empty());
                            EXPECT_NE(source.capture(clip, kLong, error_), nullptr) << error_;
                          });
  row("media file source: every allocation fails", allocations,
      "that call's picture; std::bad_alloc, the next call works");
}

TEST_F(ResourceFailure, Camera) {
  StandInCamera& camera = StandInCamera::instance();
  camera.offer("video/x-raw,format=NV12,width=64,height=32,framerate=30/1");
  const media_backend::V4l2FrameSourceConfig config = {"/dev/video with a long name", 64, 32, 30};
  V4l2FrameSource source;
  EXPECT_EQ(source.capture(config, 0ms, error_), nullptr);
  EXPECT_EQ(error_, "");
  int number = 0;
  const auto show = [&] {
    const Sound memory;
    camera.show(number += 2);
  };
  const auto unplug = [&] {
    const Sound memory;
    camera.perform([](GstElement* element, GstBuffer**) {
      GST_ELEMENT_ERROR(element, RESOURCE, READ, ("no more"), ("unplugged"));
      return GST_FLOW_ERROR;
    });
  };
  const auto expectWorks = [&] {
    source.capture(config, 0ms, error_);
    EXPECT_EQ(error_, "");
    show();
    EXPECT_NE(source.capture(config, 0ms, error_), nullptr) << error_;
  };

  int allocations = failEach(
      [&] {
        show();
        EXPECT_NE(source.capture(config, 0ms, error_), nullptr);
      },
      [&](bool) { expectWorks(); });
  // A camera that fails, when there is no memory for its message.
  allocations += failEach(
      [&] {
        unplug();
        source.capture(config, 0ms, error_);
      },
      [&](bool threw) {
        EXPECT_TRUE(threw || !error_.empty());
        expectWorks();
      });
  row("V4L2 source: every allocation fails", allocations,
      "that call's picture or message; std::bad_alloc, the next call works");
}

TEST_F(ResourceFailure, StillImage) {
  makeFiles();
  const StillImageFrameSource source;
  Picture picture = source.load({image_}, error_);
  ASSERT_NE(picture, nullptr) << error_;
  const int allocations = failEach(
      [&] {
        picture.reset();
        picture = source.load({image_}, error_);
      },
      [&](bool threw) {
        EXPECT_TRUE(threw || picture != nullptr || !error_.empty());
        EXPECT_NE(source.load({image_}, error_), nullptr) << error_;
      });
  row("still image source: every allocation fails", allocations,
      "that call's picture; std::bad_alloc or a message, the next call works");
}

TEST_F(ResourceFailure, NoDescriptors) {
  makeFiles();
  const auto keepAlive = std::make_shared<int>();
  const auto frame = lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));
  const GstVideoBackend imx(imxProfile());
  const media_backend::MediaFileFrameSourceConfig clip = {clip_, 64, 32, 30, true};
  {
    MediaFileFrameSource source;  // what is made once
    ASSERT_NE(source.capture(clip, kLong, error_), nullptr) << error_;
  }
  const std::ptrdiff_t descriptors = openDescriptors();
  int denied = denyEach([&] {
    g_autoptr(GstBuffer) buffer = imx.wrapFrame(frame->handle(), keepAlive);
    EXPECT_EQ(keepAlive.use_count(), buffer != nullptr ? 2 : 1);
    return buffer != nullptr;
  });
  row("wrapFrame: every descriptor denied", denied, "nothing; null");
  denied = denyEach([&] { return StillImageFrameSource().load({image_}, error_) != nullptr; });
  row("still image source: every descriptor denied", denied, "that call's picture; a message");
  MediaFileFrameSource source;
  denied = denyEach([&] {
    const Picture picture = source.capture(clip, 5s, error_);
    EXPECT_TRUE(picture != nullptr || !error_.empty());
    source.stop();
    return picture != nullptr;
  });
  row("media file source: every descriptor denied", denied,
      "that call's picture; a message, and it works again");
  EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors();
}

}  // namespace
