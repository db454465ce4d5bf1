// What ends in the wrong order: sources destroyed in every state, wrapped frames that outlive
// everything around them, the last reference dropped on two threads at once; and the backend hit by
// many threads from its first call on.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/AudioContinuityGuard.h>
#include <media_backend/GstVideoBackend.h>
#include <media_backend/MediaFileFrameSource.h>
#include <simulated_board/SimulatedBoard.h>

#include "Torture.h"
#include "support/Clip.h"
#include "support/Pipeline.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"
#include "support/TempFolder.h"

namespace {

using lumora::ExportedFrame;
using media_backend::AudioContinuityGuard;
using media_backend::GstVideoBackend;
using media_backend::MediaFileFrameSource;
using std::chrono_literals::operator""s;
using Codec = GstVideoBackend::Codec;

void together(std::size_t count, const std::function<void(std::size_t)>& work) {
  std::atomic<std::size_t> waiting = count;
  std::vector<std::thread> threads;
  for (std::size_t i = 0; i < count; ++i) {
    threads.emplace_back([&waiting, &work, i] {
      --waiting;
      while (waiting > 0) {
        std::this_thread::yield();
      }
      work(i);
    });
  }
  std::for_each(threads.begin(), threads.end(), std::mem_fn(&std::thread::join));
}

std::shared_ptr<ExportedFrame> makeFrame() {
  return ExportedFrame::fromPicture(
      *lumora::LumoraPicture::fromNv12Host(std::string(768, 'x').data(), 32, 16, 32));
}

// The source's pipeline decodes ahead, so it is destroyed while frames flow, wait and are taken.
TEST(Lifetime, MediaFileSourceDestroyedAtAnyMoment) {
  const TempFolder folder;
  const std::string clip = folder / "clip.mkv";
  makeClip(clip, "64x32", 30, 20);
  std::mt19937 chance(static_cast<unsigned>(tortureSeed()));
  const unsigned long times = 20 * tortureScale();
  std::ptrdiff_t descriptors = 0;
  for (unsigned long i = 0; i < times; ++i) {
    std::shared_ptr<lumora::LumoraPicture> last;
    {
      MediaFileFrameSource source;
      std::string error;
      for (unsigned long frame = chance() % 30; frame > 0; --frame) {
        // Without patience: the pipeline may be anywhere between its start and a frame.
        last = source.capture({clip, 64, 32, 30, chance() % 2 == 0}, 0s, error);
        ASSERT_EQ(error, "");
      }
      std::this_thread::sleep_for(std::chrono::microseconds(chance() % 3000));
    }
    if (last != nullptr) {
      EXPECT_GT(last->luma()[0] + last->luma()[1], 0);
    }
    if (i == 2) {
      descriptors = openDescriptors();  // what GStreamer sets up for the process is there by now
    }
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  tortureRow("a source is destroyed at a random moment", times, std::to_string(tortureSeed()),
             "nothing");
}

TEST(Lifetime, WrappedFrameOutlivesEverythingAroundIt) {
  for (const auto& profile : {imxProfile(), nvidiaProfile()}) {
    auto backend = std::make_unique<GstVideoBackend>(profile);
    std::shared_ptr<ExportedFrame> frame = makeFrame();
    const std::weak_ptr<ExportedFrame> watched = frame;
    GstSample* held = nullptr;
    {
      Pipeline pipeline("appsrc name=in format=time ! queue ! appsink name=out sync=false");
      const lumora::FrameExportHandle handle = frame->handle();
      pipeline.push(backend->wrapFrame(handle, std::move(frame)));
      held = pipeline.pull();
    }
    backend.reset();
    ASSERT_NE(held, nullptr);
    EXPECT_FALSE(watched.expired());
    GstMapInfo map;
    ASSERT_TRUE(gst_buffer_map(gst_sample_get_buffer(held), &map, GST_MAP_READ));
    EXPECT_EQ(map.data[0] == 'x', profile.platform == GstVideoBackend::Platform::ImxVpu);
    gst_buffer_unmap(gst_sample_get_buffer(held), &map);
    std::thread([held] { gst_sample_unref(held); }).join();
    EXPECT_TRUE(watched.expired()) << profile.name;
  }
}

// Whoever comes second ends the frame.
TEST(Lifetime, LastReferenceDroppedByTheHostAndTheStreamAtOnce) {
  const int times = static_cast<int>(500 * tortureScale());
  for (const auto& profile : {imxProfile(), nvidiaProfile()}) {
    const GstVideoBackend backend(profile);
    std::atomic<int> ended = 0;
    {
      Pipeline pipeline(
          "appsrc name=in format=time block=true max-bytes=4096 ! fakesink sync=false");
      for (int i = 0; i < times; ++i) {
        const std::shared_ptr<ExportedFrame> frame = makeFrame();
        std::shared_ptr<void> keepAlive(frame.get(), [frame, &ended](void*) { ++ended; });
        pipeline.push(backend.wrapFrame(frame->handle(), keepAlive));
      }
      pipeline.finish();
      g_autoptr(GstMessage) end = pipeline.message(GST_MESSAGE_EOS);
      EXPECT_NE(end, nullptr);
    }
    EXPECT_EQ(ended, times) << profile.name;
  }
  tortureRow("host and stream drop a frame's last reference at once",
             2 * static_cast<unsigned long>(times), "", "nothing");
}

TEST(Lifetime, SixtyFourThreadsFromTheFirstCallOn) {
  std::string error;
  ASSERT_TRUE(simulated_board::registerElements(nullptr, "imx", error)) << error;
  const std::shared_ptr<ExportedFrame> frame = makeFrame();
  const GstVideoBackend expected(imxProfile());
  GstVideoBackend::EncoderConfig config;
  config.codec = Codec::H264;
  const std::string recorder = expected.recorderPipeline(config, 60, true, true);
  std::atomic<unsigned long> good = 0;
  together(64, [&](std::size_t) {
    const GstVideoBackend& backend = GstVideoBackend::instance();
    for (int i = 0; i < 20; ++i) {
      g_autoptr(GstBuffer) buffer = backend.wrapFrame(frame->handle(), frame);
      g_autoptr(GstCaps) caps = backend.makeInputCaps(32, 16, 30, true, nullptr);
      const bool same = backend.recorderPipeline(config, 60, true, true) == recorder &&
                        backend.supports(Codec::H264) &&
                        GstVideoBackend::codecFromString("HEVC") == Codec::H265;
      good += buffer != nullptr && caps != nullptr && same ? 1U : 0U;
    }
  });
  EXPECT_EQ(good, 64UL * 20);
  EXPECT_EQ(frame.use_count(), 1);
  tortureRow("64 threads from the backend's first call on", good, "", "nothing");
}

// Several guards, each with a thread that receives and one that fills up and drains: every track is
// whole, in order and without overlap.
TEST(Lifetime, GuardsUnderTwoThreadsEach) {
  constexpr std::uint64_t kFrame = 20'000'000;
  constexpr std::uint64_t kFrames = 200;
  const auto late = AudioContinuityGuard::TimePoint::max();
  std::vector<AudioContinuityGuard> guards(4);
  std::vector<std::uint64_t> received(guards.size());
  std::vector<std::atomic<bool>> done(guards.size());
  together(2 * guards.size(), [&](std::size_t i) {
    AudioContinuityGuard& guard = guards[i / 2];
    if (i % 2 == 0) {
      for (std::uint64_t n = 1; n <= kFrames; ++n) {
        guard.noteReceived({{1, 2, 3}, n * kFrame}, late - 1s);
      }
      done[i / 2] = true;
      return;
    }
    std::uint64_t last = 0;
    for (bool more = true; more;) {
      more = !done[i / 2];
      for (const auto& packet : guard.drainReceived()) {
        EXPECT_EQ(packet.ptsNs, last + kFrame);
        last = packet.ptsNs;
        ++received[i / 2];
      }
      guard.makeFallbackUntil(kFrame, 1, late);
    }
  });
  EXPECT_EQ(received, std::vector<std::uint64_t>(guards.size(), kFrames));
}

}  // namespace
