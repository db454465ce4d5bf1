#include "camera/CameraFeed.h"

#include <gst/video/video.h>

#include "base/Pipelines.h"

namespace station {
namespace {

constexpr GstClockTime kKeyInterval = 250 * GST_MSECOND;

}  // namespace

CameraFeed::CameraFeed(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                       GstElement* bin)
    : backend_(backend),
      source_([&] {
        GstPtr<GstElement> source = findElement(bin, "camera");
        camera.format().setCaps(backend, source.get());
        return source;
      }()),
      klv_(gst_bin_get_by_name(GST_BIN(bin), "klv")),
      format_(camera.format()),
      subscription_(camera, [this](const CameraFrame& frame) { push(frame); }) {}

void CameraFeed::push(const CameraFrame& frame) {
  if (!isPlaying(source_.get())) {
    return;
  }
  sendKeyRequest();
  GstBuffer* const buffer = format_.wrap(backend_, frame.picture);
  GST_BUFFER_DURATION(buffer) = format_.rate.timeOf(1);
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
  if (klv_ != nullptr) {
    GstBuffer* const packet = gst_buffer_new_allocate(nullptr, frame.klv.size(), nullptr);
    gst_buffer_fill(packet, 0, frame.klv.data(), frame.klv.size());
    gst_app_src_push_buffer(GST_APP_SRC(klv_.get()), packet);
  }
}

// In order with the frames, so that it reaches the encoder with the next one.
void CameraFeed::sendKeyRequest() {
  if (++sinceKey_ > format_.rate.framesUntil(kKeyInterval) && isKeyWanted_.exchange(false)) {
    gst_element_send_event(source_.get(), gst_video_event_new_downstream_force_key_unit(
                                              GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                              GST_CLOCK_TIME_NONE, /*all_headers=*/TRUE, 0));
    sinceKey_ = 0;
  }
}

}  // namespace station
