// A camera that fails, ends, stalls and warns at random moments: every call returns, an error is
// told once, and the source works again as soon as the camera does.

#include <chrono>
#include <iterator>
#include <random>
#include <string>

#include <gst/gst.h>
#include <gtest/gtest.h>
#include <media_backend/V4l2FrameSource.h>

#include "Torture.h"
#include "support/ProcessState.h"
#include "unit/StandInCamera.h"

namespace {

using media_backend::V4l2FrameSource;
using std::chrono_literals::operator""ms;

struct Fault {
  const char* name;
  bool isTold;  // a message comes of it
  void (*commit)(StandInCamera& camera);
};

const Fault kFaults[] = {
    {"stalls", false, [](StandInCamera&) {}},
    {"ends", false,
     [](StandInCamera& camera) {
       camera.perform([](GstElement*, GstBuffer**) { return GST_FLOW_EOS; });
     }},
    {"breaks off", true,
     [](StandInCamera& camera) {
       camera.perform([](GstElement*, GstBuffer**) { return GST_FLOW_ERROR; });
     }},
    {"posts an error and goes on", true,
     [](StandInCamera& camera) {
       camera.perform([](GstElement* source, GstBuffer**) {
         GST_ELEMENT_ERROR(source, RESOURCE, READ, ("torn"), ("cable"));
         return GST_FLOW_CUSTOM_SUCCESS;
       });
     }},
    {"warns", true,
     [](StandInCamera& camera) {
       camera.perform([](GstElement* source, GstBuffer**) {
         GST_ELEMENT_WARNING(source, RESOURCE, READ, ("hot"), ("sensor"));
         return GST_FLOW_CUSTOM_SUCCESS;
       });
     }},
    {"gives nonsense", false,
     [](StandInCamera& camera) {
       camera.perform([](GstElement*, GstBuffer** buffer) {
         *buffer = gst_buffer_new_allocate(nullptr, 7, nullptr);
         return GST_FLOW_OK;
       });
     }},
};

TEST(FailingCamera, WorksAgainAfterEveryFault) {
  StandInCamera& camera = StandInCamera::instance();
  camera.offer("video/x-raw,format=NV12,width=64,height=32,framerate=30/1");
  std::mt19937 chance(static_cast<unsigned>(tortureSeed()));
  const media_backend::V4l2FrameSourceConfig config = {"/dev/video7", 64, 32, 30};
  V4l2FrameSource source;
  std::string error;
  int number = 0;
  const auto show = [&] { camera.show(number += 2); };

  const unsigned long times = 60 * tortureScale();
  std::ptrdiff_t descriptors = 0;
  for (unsigned long i = 0; i < times; ++i) {
    if (i == 1) {
      descriptors = openDescriptors();
    }
    camera.onOpen(nullptr);
    ASSERT_EQ(source.capture(config, 0ms, error), nullptr);
    ASSERT_EQ(error, "");
    for (unsigned long frames = chance() % 4; frames > 0; --frames) {
      show();
      ASSERT_NE(source.capture(config, 0ms, error), nullptr) << error;
    }
    const Fault& fault = kFaults[chance() % std::size(kFaults)];
    SCOPED_TRACE(std::string("seed ") + std::to_string(tortureSeed()) + ", fault " +
                 std::to_string(i) + ": " + fault.name);
    fault.commit(camera);
    const bool reopens = chance() % 4 != 0;
    camera.onOpen([reopens](GstElement*) { return reopens; });
    ASSERT_EQ(source.capture(config, 5ms, error), nullptr);
    ASSERT_TRUE(!fault.isTold || !error.empty());
    source.capture(config, 0ms, error);  // starts anew, or is refused
    source.stop();
  }
  EXPECT_EQ(openDescriptors(), descriptors);
  tortureRow("a camera fails, stalls or ends at a random moment", times,
             std::to_string(tortureSeed()), "what it did not deliver; works again");
}

}  // namespace
