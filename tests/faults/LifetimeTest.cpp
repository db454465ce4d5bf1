// Sources destroyed in every state.

#include <chrono>
#include <random>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <media_backend/MediaFileFrameSource.h>

#include "Torture.h"
#include "support/Clip.h"
#include "support/ProcessState.h"
#include "support/TempFolder.h"

namespace {

using std::chrono_literals::operator""s;

// The source's pipeline decodes ahead, so it is destroyed while frames flow, wait and are taken.
TEST(Lifetime, MediaFileSourceDestroyedAtAnyMoment) {
  const TempFolder folder;
  const std::string clip = folder / "clip.mkv";
  makeClip(clip, "64x32", 30, 20);
  std::mt19937 chance(static_cast<unsigned>(tortureSeed()));
  const unsigned long times = 20 * tortureScale();
  std::ptrdiff_t descriptors = 0;
  for (unsigned long i = 0; i < times; ++i) {
    if (i == 3) {
      descriptors = openDescriptors();  // what GStreamer sets up for the process is there by now
    }
    media_backend::MediaFileFrameSource source;
    std::string error;
    for (unsigned long frame = chance() % 30; frame > 0; --frame) {
      // Without patience: the pipeline may be anywhere between its start and a frame.
      source.capture({clip, 64, 32, 30, chance() % 2 == 0}, 0s, error);
      ASSERT_EQ(error, "");
    }
    std::this_thread::sleep_for(std::chrono::microseconds(chance() % 3000));
  }
  EXPECT_TRUE(descriptorsSettle(descriptors)) << openDescriptors() << ", not " << descriptors;
  tortureRow("a source is destroyed at a random moment", times, std::to_string(tortureSeed()),
             "nothing");
}

}  // namespace
