// What ends in the wrong order: sources destroyed in every state, wrapped frames that outlive
// everything around them, the last reference dropped on two threads at once.

#include <atomic>
#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <lumora/FrameExport.h>
#include <lumora/LumoraPicture.h>
#include <media_backend/GstVideoBackend.h>
#include <media_backend/MediaFileFrameSource.h>

#include "Torture.h"
#include "support/Clip.h"
#include "support/Pipeline.h"
#include "support/ProcessState.h"
#include "support/Profiles.h"
#include "support/TempFolder.h"

namespace {

using lumora::ExportedFrame;
using media_backend::GstVideoBackend;
using media_backend::MediaFileFrameSource;
using std::chrono_literals::operator""s;

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
  EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors() << ", not " << descriptors;
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
    EXPECT_TRUE(settles([&watched] { return watched.expired(); })) << profile.name;
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

}  // namespace
