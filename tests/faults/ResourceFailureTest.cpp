// Every allocation of a call in turn fails, and then every descriptor: what the call promises for
// that, nothing left behind, and the same call works afterwards. GLib ends the process when its own
// allocations fail, so it is operator new that fails here.

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <memory>
#include <new>
#include <optional>
#include <string>
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
using media_backend::GstVideoBackend;
using media_backend::MediaFileFrameSourceConfig;
using std::chrono_literals::operator""s;
using Codec = GstVideoBackend::Codec;
using Picture = std::shared_ptr<lumora::LumoraPicture>;

constexpr auto kLong = 5s;  // no healthy capture takes as long

struct Subject {
  std::string name;
  std::function<bool()> call;  // whether it succeeded
  std::function<void()> undo;  // sees that it works again, and prepares the next call
  const char* lost;
  bool leaks = false;  // in a library below
};

class ResourceFailure : public testing::Test {
 protected:
  ResourceFailure() {
    makeClip(clip_.path, "64x32", 30, 3);
    makeClip(image_, "64x32", 30, 1);
    std::ofstream(garbage_.path) << std::string(4096, 'x');
  }

  static void expectPromises(const Subject& subject) {
    SCOPED_TRACE(subject.name);
    subject.undo();  // what is made once
    EXPECT_TRUE(subject.call());
    subject.undo();
    int times = 0;
    while (withoutAllocation(times, subject) && !HasFailure()) {
      ++times;
    }
    report(subject, ": every allocation fails", times);
    times = 0;
    while (!withoutDescriptors(rlim_t{3} + static_cast<rlim_t>(times), subject) && !HasFailure()) {
      ++times;
    }
    report(subject, ": every descriptor denied", times);
  }

  TempFolder folder_;
  const MediaFileFrameSourceConfig clip_ = {
      folder_ / "a clip with a name that no string holds in itself.mkv", 64, 32, 30, true};
  const MediaFileFrameSourceConfig garbage_ = {
      folder_ / "no clip, with a name that no string holds in itself.mkv", 64, 32, 30, true};
  const std::string image_ = folder_ / "an image with a name that no string holds in itself.png";
  const std::shared_ptr<lumora::ExportedFrame> frame_ = lumora::ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));

 private:
  static void report(const Subject& subject, const char* how, int times) {
    if (times > 0) {
      tortureRow(subject.name + how, static_cast<unsigned long>(times), "", subject.lost);
    }
  }

  // Whether the call had an allocation of that number, which failed.
  static bool withoutAllocation(int number, const Subject& subject) {
    const std::ptrdiff_t descriptors = openDescriptors();
    const long living = g_living;
    bool succeeded = false;
    g_toFail = number;
    try {
      succeeded = subject.call();
    } catch (const std::bad_alloc&) {
    }
    const bool failed = g_toFail == kNever;
    g_toFail = kNever;
    EXPECT_TRUE(failed || succeeded) << "allocation " << number;
    subject.undo();
    EXPECT_TRUE(subject.leaks || descriptorsSettle(descriptors)) << "allocation " << number;
    EXPECT_TRUE(subject.leaks || settles([living] { return g_living <= living; }))
        << "allocation " << number;
    return failed;
  }

  // Whether the call succeeded with no descriptors beyond the first `most`.
  static bool withoutDescriptors(rlim_t most, const Subject& subject) {
    const std::ptrdiff_t descriptors = openDescriptors();
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit lower = {most, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &lower);
    const bool succeeded = subject.call();
    setrlimit(RLIMIT_NOFILE, &limit);
    subject.undo();
    EXPECT_TRUE(descriptorsSettle(descriptors)) << most << " descriptors";
    return succeeded;
  }
};

TEST_F(ResourceFailure, WrapFrame) {
  for (const auto& profile : {imxProfile(), nvidiaProfile()}) {
    const GstVideoBackend backend(profile);
    const auto keepAlive = std::make_shared<int>();
    GstBuffer* buffer = nullptr;
    expectPromises({std::string("wrapFrame, ") + profile.name,
                    [&]() noexcept {
                      buffer = backend.wrapFrame(frame_->handle(), keepAlive);
                      return buffer != nullptr;
                    },
                    [&] {
                      gst_clear_buffer(&buffer);
                      EXPECT_EQ(keepAlive.use_count(), 1);
                    },
                    "nothing; null"});
  }
}

TEST_F(ResourceFailure, Texts) {
  const GstVideoBackend backend(nvidiaProfile());
  GstVideoBackend::EncoderConfig config;
  config.codec = Codec::H264;
  const std::string colorimetry(2000, '1');  // longer than the room that is made at once
  std::string text;
  const auto forget = [&text] { std::string().swap(text); };
  expectPromises({"the recorder's description",
                  [&] {
                    text = backend.recorderPipeline(config, 60, true, true);
                    return !text.empty();
                  },
                  forget, "nothing; std::bad_alloc"});
  expectPromises({"a long description",
                  [&] {
                    text = backend.inputConversionChain(colorimetry.c_str());
                    return text.size() > colorimetry.size();
                  },
                  forget, "nothing; std::bad_alloc"});
  expectPromises(
      {"codec names",
       [&]() noexcept { return GstVideoBackend::codecFromString(colorimetry) == Codec::Unknown; },
       forget, "nothing"});
}

// A host that repeats the step that failed gets the same track as without the failure.
TEST_F(ResourceFailure, Guard) {
  const auto now = AudioContinuityGuard::TimePoint::max();
  const media_backend::EncodedAudioFrame received = {std::vector<std::uint8_t>(100), 1'000'000'000};
  std::optional<AudioContinuityGuard> guard;
  std::vector<std::uint64_t> track;
  const auto take = [&track](const auto& frames) {
    for (const auto& frame : frames) {
      track.push_back(frame.ptsNs);
    }
  };
  const std::function<void()> steps[] = {
      [&] { guard->noteReceived(received, now - 1s); },
      [&] { take(guard->drainReceived()); },
      [&] { take(guard->makeFallbackUntil(1'200'000'000, 100, now)); },
      [&] { guard->noteReceived(received, now - 1s); },
      [&] { take(guard->drainReceived()); },
      [&] { track.push_back(guard->maybeMakeFallback(now).value().ptsNs); }};
  const std::function<void()>* step = std::begin(steps);
  const auto run = [&] {
    for (; step != std::end(steps); ++step) {
      (*step)();
    }
    return true;
  };
  const auto begin = [&] {
    guard.emplace();
    track.clear();
    track.reserve(100);
    step = std::begin(steps);
  };
  begin();
  run();
  const std::vector<std::uint64_t> whole = track;
  ASSERT_EQ(whole.size(), 13U);
  expectPromises({"the guard", run,
                  [&] {
                    run();
                    EXPECT_EQ(track, whole);
                    begin();
                  },
                  "nothing; std::bad_alloc, the same track once the call is repeated"});
}

TEST_F(ResourceFailure, MediaFile) {
  media_backend::MediaFileFrameSource source;
  Picture picture;
  const auto capture = [&](const MediaFileFrameSourceConfig& config) {
    std::string error;
    picture = source.capture(config, kLong, error);
    EXPECT_TRUE(picture != nullptr || !error.empty());
    return picture != nullptr;
  };
  // Plays so many frames.
  const auto rewind = [&](int frames) {
    picture.reset();
    source.stop();
    for (int i = 0; i < frames; ++i) {
      EXPECT_TRUE(capture(clip_));
    }
    picture.reset();
  };
  const char* const lost = "that call's picture; std::bad_alloc or a message, the next call works";
  expectPromises({"media file source, at its start", [&] { return capture(clip_); },
                  [&] {
                    rewind(1);
                    rewind(0);
                  },
                  lost});
  expectPromises({"media file source, at the end of its file", [&] { return capture(clip_); },
                  [&] { rewind(3); }, lost});
  expectPromises({"media file source, for no media file", [&] { return !capture(garbage_); },
                  [&] { rewind(1); }, "std::bad_alloc or a message, the next call works"});
}

TEST_F(ResourceFailure, Camera) {
  StandInCamera& camera = StandInCamera::instance();
  const media_backend::V4l2FrameSourceConfig config = {"/dev/video with a long name", 64, 32, 30};
  media_backend::V4l2FrameSource source;
  Picture picture;
  std::string error;
  int number = 0;
  const auto capture = [&] {
    picture = source.capture(config, 0s, error);
    return picture != nullptr;
  };
  expectPromises({"V4L2 source", capture,
                  [&] {
                    picture.reset();
                    capture();  // starts anew if nothing runs
                    EXPECT_EQ(error, "");
                    camera.show(number += 2);
                    EXPECT_TRUE(capture());
                    picture.reset();
                    camera.show(number += 2);
                  },
                  "that call's picture; std::bad_alloc, the next call works"});
}

// OpenCV keeps an open file and its blocks when an exception passes through it.
TEST_F(ResourceFailure, StillImage) {
  const media_backend::StillImageFrameSource source;
  Picture picture;
  const auto load = [&] {
    std::string error;
    picture = source.load({image_}, error);
    EXPECT_TRUE(picture != nullptr || !error.empty());
    return picture != nullptr;
  };
  expectPromises({"still image source", load,
                  [&] {
                    EXPECT_TRUE(load());
                    picture.reset();
                  },
                  "that call's picture; std::bad_alloc or a message, the next call works", true});
}

}  // namespace
