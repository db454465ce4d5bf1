#include "camera/CameraFeed.h"

#include "base/Pipelines.h"

namespace station {

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
