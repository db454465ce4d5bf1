#include "camera/CameraFeed.h"

#include <gst/video/video.h>

#include "base/Pipelines.h"
#include "metadata/MisbSt0604.h"

namespace station {
namespace {

constexpr GstClockTime kKeyInterval = 250 * GST_MSECOND;

}  // namespace

CameraFeed::CameraFeed(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                       GstElement* bin, const char* encoded)
    : backend_(backend),
      source_([&] {
        GstPtr<GstElement> source = findElement(bin, "camera");
        camera.format().setCaps(backend, source.get());
        return source;
      }()),
      klv_(gst_bin_get_by_name(GST_BIN(bin), "klv")),
      format_(camera.format()),
      subscription_(camera, [this](const CameraFrame& frame) { push(frame); }) {
  const GstPtr<GstElement> taker = findElement(bin, encoded);
  const GstPtr<GstPad> pad(gst_element_get_static_pad(taker.get(), "sink"));
  MisbSt0604::insertAt(pad.get(),
                       [times = times_](GstClockTime elapsed) { return times->find(elapsed); });
}

void CameraFeed::push(const CameraFrame& frame) {
  if (!isPlaying(source_.get())) {
    return;
  }
  sendKeyRequest();
  GstBuffer* const buffer = format_.wrap(backend_, frame.picture);
  const GstClockTime now = gst_element_get_current_running_time(source_.get());
  times_->add(now, frame.time);
  GST_BUFFER_PTS(buffer) = now;
  GST_BUFFER_DURATION(buffer) = format_.rate.timeOf(1);
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
  if (klv_ != nullptr) {
    GstBuffer* const packet = gst_buffer_new_allocate(nullptr, frame.klv.size(), nullptr);
    gst_buffer_fill(packet, 0, frame.klv.data(), frame.klv.size());
    GST_BUFFER_PTS(packet) = now;
    gst_app_src_push_buffer(GST_APP_SRC(klv_.get()), packet);
  }
}

// Sends the event through the appsrc, so that it reaches the encoder in order with the frames.
void CameraFeed::sendKeyRequest() {
  if (++sinceKey_ > format_.rate.framesUntil(kKeyInterval) && isKeyWanted_.exchange(false)) {
    gst_element_send_event(source_.get(), gst_video_event_new_downstream_force_key_unit(
                                              GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE,
                                              GST_CLOCK_TIME_NONE, /*all_headers=*/TRUE, 0));
    sinceKey_ = 0;
  }
}

}  // namespace station
