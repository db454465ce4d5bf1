#include "camera/FrameFormat.h"

#include "base/StationError.h"

namespace station {

// The library's caps have a whole number of frames per second.
void FrameFormat::setCaps(const media_backend::GstVideoBackend& backend, GstElement* source) const {
  g_autoptr(GstCaps) caps =
      backend.makeInputCaps(static_cast<int>(width), static_cast<int>(height), /*fps=*/0,
                            /*squarePixels=*/true, colorimetry.c_str());
  gst_caps_set_simple(caps, "framerate", GST_TYPE_FRACTION, rate.numerator, rate.denominator,
                      nullptr);
  if (isPlain) {
    gst_caps_set_features(caps, 0, nullptr);
  }
  gst_app_src_set_caps(GST_APP_SRC(source), caps);
}

GstBuffer* FrameFormat::wrap(const media_backend::GstVideoBackend& backend,
                             const std::shared_ptr<lumora::ExportedFrame>& frame) const {
  const auto release = [](gpointer kept) {
    delete static_cast<std::shared_ptr<lumora::ExportedFrame>*>(kept);
  };
  const lumora::FrameExportHandle& handle = frame->handle();
  GstBuffer* const buffer =
      isPlain ? gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY,
                                            const_cast<std::uint8_t*>(frame->pixels()), handle.size,
                                            0, handle.size, new std::shared_ptr(frame), release)
              : backend.wrapFrame(handle, frame);
  if (buffer == nullptr) {
    throw StationError(ExitCode::Pipeline, "a frame could not be wrapped");
  }
  return buffer;
}

}  // namespace station
