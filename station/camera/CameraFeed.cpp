#include "camera/CameraFeed.h"

#include "base/Pipelines.h"

namespace station {
namespace {

// Before PLAYING the element may have a clock but no base time; do-timestamp would write the
// absolute clock time, and the pipeline wait for it.
bool isPlaying(GstElement* source) {
  GstState state = GST_STATE_NULL;
  gst_element_get_state(source, &state, nullptr, 0);
  return state == GST_STATE_PLAYING;
}

}  // namespace

CameraFeed::CameraFeed(const media_backend::GstVideoBackend& backend, LiveCamera& camera,
                       GstElement* bin)
    : backend_(backend),
      source_([&] {
        GstPtr<GstElement> source = findElement(bin, "camera");
        camera.format().setCaps(backend, source.get());
        return source;
      }()),
      format_(camera.format()),
      subscription_(camera, [this](const auto& frame) { push(frame); }) {}

void CameraFeed::push(const std::shared_ptr<lumora::ExportedFrame>& frame) {
  if (!isPlaying(source_.get())) {
    return;
  }
  GstBuffer* const buffer = format_.wrap(backend_, frame);
  GST_BUFFER_DURATION(buffer) = format_.rate.timeOf(1);
  gst_app_src_push_buffer(GST_APP_SRC(source_.get()), buffer);
}

}  // namespace station
